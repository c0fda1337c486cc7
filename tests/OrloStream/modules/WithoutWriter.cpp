// A module that was given no writer task, as when there was no memory for the stage.

#include <ace/Module.h>
#include <ace/Stream_Modules.h>
#include <ace/Synch_Traits.h>

extern "C" ACE_Module<ACE_MT_SYNCH>* make_WithoutWriter() {
  return new ACE_Module<ACE_MT_SYNCH>(ACE_TEXT("WithoutWriter"));
}
