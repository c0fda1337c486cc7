#include <ace/Module.h>
#include <ace/Synch_Traits.h>

#include <stdexcept>

extern "C" ACE_Module<ACE_MT_SYNCH>* make_ThrowingFactory() {
  throw std::runtime_error("the factory's reason");
}
