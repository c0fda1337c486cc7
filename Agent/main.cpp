#include <CLI/CLI.hpp>
#include <algorithm>
#include <iostream>

#include "Agent/Agent.h"
#include "Agent/ConfigurationReader.h"
#include "Agent/LogSetup.h"
#include "Agent/Monitor/StatusCommand.h"
#include "Agent/PathText.h"
#include "Agent/Process.h"
#include "WindowsAgentCommon/Exceptions.h"

namespace {

using WindowsAgentCommon::LogFacade;

constexpr int kRefused = 1;
constexpr int kWrongUsage = 2;

// A package for Windows has the modules in the program's own directory, an installation and the
// build tree in different ones near it.
std::string FindModuleDirectory(const OrloAgent::AgentOptions& options) {
  const std::filesystem::path beside = OrloAgent::GetProgramPath().parent_path();
  const std::filesystem::path root = beside.parent_path();
  const std::string& module = options.streams.front().stages.front().module;
  const std::string file = ORLO_MODULE_PREFIX + module + ORLO_MODULE_SUFFIX;
  std::error_code ignored;
  if (std::filesystem::exists(beside / OrloAgent::ToPath(file), ignored)) {
    return OrloAgent::ToText(beside);
  }
  for (const char* place : {"lib/orlo", ORLO_LIBRARY_DIRECTORY "/orlo", ORLO_LIBRARY_DIRECTORY}) {
    if (std::filesystem::exists(root / place / OrloAgent::ToPath(file), ignored)) {
      return OrloAgent::ToText(root / place);
    }
  }
  return OrloAgent::ToText(root / "lib");
}

// True when there are none.
bool PrintMistakes(const OrloAgent::Configuration& configuration, const std::string& file) {
  for (const OrloAgent::ConfigurationMistake& mistake : configuration.mistakes) {
    std::cerr << OrloAgent::ToText(mistake, file) << '\n';
  }
  return configuration.mistakes.empty();
}

int Check(const std::string& file) {
  if (!PrintMistakes(OrloAgent::LoadConfiguration(file), file)) {
    return kRefused;
  }
  std::cout << file << ": no mistakes found\n";
  return 0;
}

int Run(const std::string& file, std::string modules) {
  OrloAgent::Configuration configuration = OrloAgent::LoadConfiguration(file);
  if (!PrintMistakes(configuration, file)) {
    return kRefused;
  }
  WindowsAgentCommon::LoggerFactory::AddSecrets(configuration.secrets);
  OrloAgent::ConfigureLogging(configuration.options.log);
  if (modules.empty()) {
    modules = FindModuleDirectory(configuration.options);
  }
  const auto log = WindowsAgentCommon::LoggerFactory::GetLog("Code.Agent");
  try {
    OrloAgent::Agent agent(std::move(configuration.options), modules,
                           {file, [file] { return OrloAgent::LoadConfiguration(file); }});
    agent.Start();
    agent.Wait();
    agent.Stop();
    return 0;
  } catch (const std::exception& exception) {
    LogFacade::Error(log, "The agent can't go on: %s.", exception.what());
    return kRefused;
  }
}

}  // namespace

int main(int argc, char** argv) {
  OrloAgent::PrepareProcess();
  CLI::App app(
      "Collects log events, keeps them while their destination is away, and forwards them.",
      "orlo-agent");
  // A path may begin with a slash on Windows, too.
  app.allow_windows_style_options(false);
  app.set_version_flag("--version", "orlo-agent " ORLO_VERSION);
  app.require_subcommand(1);
  std::string file;
  std::string modules;
  CLI::App* const run = app.add_subcommand("run", "Collect and forward until SIGTERM or Ctrl-C");
  CLI::App* const check = app.add_subcommand("check", "Say every mistake in a configuration file");
  for (CLI::App* const command : {run, check}) {
    command->add_option("--config", file, "The configuration file")->required();
    command->add_option("--modules", modules,
                        "Directory of the stage modules (default: beside the program)");
  }
  OrloAgent::StatusQuestion question;
  CLI::App* const status = app.add_subcommand(
      "status", "Ask a running agent how it is: 0 healthy, 1 degraded, 2 no agent");
  auto* const config = status->add_option("--config", question.configuration,
                                          "The running agent's configuration file");
  status
      ->add_option("--url", question.url,
                   "Where its monitor listens, http://HOST:PORT (token: ORLO_MONITOR_TOKEN)")
      ->excludes(config);
  status->add_flag("--json", question.json, "Print what the agent answers");
  status->add_flag("--watch", question.watch, "Print it again every two seconds");
  try {
    std::vector<std::string> arguments = OrloAgent::GetArguments(argc, argv);
    // That is the order in which they are taken off.
    std::reverse(arguments.begin(), arguments.end());
    app.parse(arguments);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? 0 : kWrongUsage;
  }
  if (status->parsed()) {
    return OrloAgent::RunStatus(question);
  }
  return run->parsed() ? Run(file, modules) : Check(file);
}
