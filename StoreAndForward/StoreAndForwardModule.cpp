#include "StoreAndForward/StoreAndForwardStage.h"

// The one function that the module exports, by the name that the stream manager looks up.
extern "C" ACE_Module<ACE_MT_SYNCH>* make_StoreAndForwardStage() {
  return OrloStoreAndForward::CreateStoreAndForwardModule();
}
