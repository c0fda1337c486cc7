#include "OrloStream/StageModule.h"

#include <ace/DLL.h>

#include <filesystem>
#include <system_error>

#include "WindowsAgentCommon/Exceptions.h"
#include "WindowsAgentCommon/Text.h"

namespace OrloStream {

namespace {

[[noreturn]] void Fail(const std::string& reason) {
  throw WindowsAgentCommon::InitializationException(
      "OrloStream/StageModule", "OrloStream::LoadStageModule", __LINE__, reason);
}

std::filesystem::path FromUtf8(const std::string& text) {
  return std::filesystem::path(std::u8string(text.begin(), text.end()));
}

std::string GetFileName(const std::string& directory, const std::string& moduleName) {
  // As the build names modules; ACE's own idea of a prefix is another one with some compilers.
  return directory + "/" + ORLO_MODULE_PREFIX + moduleName + ORLO_MODULE_SUFFIX;
}

using Factory = Module* (*)();

Factory LoadFactory(const std::string& directory, const std::string& moduleName) {
  if (moduleName.empty() || moduleName.find_first_of("/\\") != std::string::npos) {
    Fail("this is not a module name");
  }
  const std::string file = GetFileName(directory, moduleName);
  std::error_code ignored;
  if (!std::filesystem::exists(FromUtf8(file), ignored)) {
    Fail(WindowsAgentCommon::Format("there is no file \"%s\"", file));
  }
  // All symbols are resolved now: one that is missing is an error here and not a crash later. The
  // library is not closed with the object.
  ACE_DLL library;
  if (library.open(ACE_TEXT_CHAR_TO_TCHAR(file.c_str()), RTLD_NOW, false) == -1) {
    const ACE_TCHAR* const error = library.error();
    Fail(WindowsAgentCommon::Format(
        "\"%s\" can't be loaded: %s", file,
        error != nullptr ? ACE_TEXT_ALWAYS_CHAR(error) : "no reason given"));
  }
  const std::string factoryName = "make_" + moduleName;
  void* const symbol = library.symbol(ACE_TEXT_CHAR_TO_TCHAR(factoryName.c_str()), 1);
  if (symbol == nullptr) {
    Fail(WindowsAgentCommon::Format("\"%s\" has no function %s", file, factoryName));
  }
  return reinterpret_cast<Factory>(symbol);
}

}  // namespace

std::unique_ptr<Module> LoadStageModule(const std::string& directory,
                                        const std::string& moduleName) {
  const Factory factory = LoadFactory(directory, moduleName);
  std::unique_ptr<Module> module(factory());
  if (!module) {
    Fail(WindowsAgentCommon::Format("make_%s gave no module", moduleName));
  }
  if (GetStage(*module) == nullptr) {
    Fail("the module's writer task is not a stream stage");
  }
  return module;
}

StreamStageBase* GetStage(Module& module) {
  return dynamic_cast<StreamStageBase*>(module.writer());
}

}  // namespace OrloStream
