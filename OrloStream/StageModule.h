#pragma once

#include <ace/Module.h>
#include <ace/Synch_Traits.h>

#include <memory>
#include <string>

#include "OrloStream/StreamStageBase.h"

namespace OrloStream {

using Module = ACE_Module<ACE_MT_SYNCH>;

// Loads `moduleName` from the directory (UTF-8 path) and calls its factory make_<moduleName>. The
// result is a module of which GetStage is not null. What was loaded stays loaded. Throws
// InitializationException with the reason; it does not name the module.
std::unique_ptr<Module> LoadStageModule(const std::string& directory,
                                        const std::string& moduleName);

// The stage that a module's writer side is, or null.
StreamStageBase* GetStage(Module& module);

}  // namespace OrloStream
