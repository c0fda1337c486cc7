#include <ace/Module.h>
#include <ace/Synch_Traits.h>

extern "C" ACE_Module<ACE_MT_SYNCH>* make_NullFactory() { return nullptr; }
