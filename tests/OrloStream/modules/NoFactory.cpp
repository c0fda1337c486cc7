// A library that loads but has no factory of its name.

extern "C" int make_SomethingElse() { return 0; }
