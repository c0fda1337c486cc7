// A module whose writer task is an ordinary task.

#include <ace/Module.h>
#include <ace/Task.h>

#include "tests/OrloStream/modules/Journal.h"

namespace {

class PlainTask : public ACE_Task<ACE_MT_SYNCH> {
 public:
  PlainTask() { Journal::CountAlive(1); }
  ~PlainTask() override { Journal::CountAlive(-1); }
};

}  // namespace

extern "C" ACE_Module<ACE_MT_SYNCH>* make_NotAStage() {
  return new ACE_Module<ACE_MT_SYNCH>(ACE_TEXT("NotAStage"), new PlainTask);
}
