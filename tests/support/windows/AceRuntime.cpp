#include <ace/Init_ACE.h>

// On Windows ACE begins with the program's main function, which it replaces; GoogleTest has one of
// its own.
namespace {

struct AceRuntime {
  AceRuntime() { ACE::init(); }
  ~AceRuntime() { ACE::fini(); }
};

const AceRuntime aceRuntime;

}  // namespace
