#pragma once

#include "WindowsAgentCommon/OrloTask.h"

// The one thread that each of the stage's two processors runs.
namespace OrloStoreAndForward {

// Starts the task's svc on one joinable thread. A failure is not reported.
void ActivateOneThread(WindowsAgentCommon::OrloTask& task);

// Puts a hang-up block at the head of the task's queue, ahead of everything that waits there, and
// returns when the thread has ended. Returns at once if it has ended already, also when the queue
// is full and nobody will empty it any more. A queue that was deactivated is activated again.
void HangUpAndWait(WindowsAgentCommon::OrloTask& task);

}  // namespace OrloStoreAndForward
