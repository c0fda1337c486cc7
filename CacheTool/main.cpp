#include <CLI/CLI.hpp>
#include <algorithm>
#include <iostream>

#include "Agent/PathText.h"
#include "Agent/Process.h"
#include "CacheTool/Commands.h"
#include "CacheTool/OutputFile.h"

namespace {

using namespace OrloCacheTool;  // NOLINT(google-build-using-namespace)

constexpr char kChunkHelp[] = "MINUTE/FILE as in the list, or oldest, or newest";

void AddCommonOptions(CLI::App& command, CommonOptions& options, const std::string& placeHelp) {
  command.add_option("CACHE", options.place, placeHelp)->required();
  command.add_option("-s,--stream", options.stream,
                     "Which stream of the data directory, if it has several");
  command
      .add_option("--page-size", options.check.pageSize,
                  "Of the machine that wrote the chunks (default: of this one)")
      ->check(CLI::Range(512, 1 << 24));
  command.add_flag_callback(
      "--any-head", [&options] { options.check.checkHeads = false; },
      "The events' heads were not written by an agent");
}

void AddJson(CLI::App& command, CommonOptions& options) {
  command.add_flag("--json", options.json, "A JSON document instead of text");
}

constexpr char kPlaceHelp[] = "Cache directory, or data directory of an agent";

// The commands and their options, which must outlive the parser.
struct Commands {
  ListOptions list;
  ShowOptions show;
  VerifyOptions verify;
  ExportOptions exporting;
  RequeueOptions requeue;
  QuarantineOptions quarantine;
  std::string output;
};

void AddReaders(CLI::App& app, Commands& commands) {
  CLI::App* list = app.add_subcommand("list", "Chunks in the order in which they are delivered");
  AddCommonOptions(*list, commands.list, kPlaceHelp);
  AddJson(*list, commands.list);

  CLI::App* show = app.add_subcommand("show", "The events of one chunk");
  AddCommonOptions(*show, commands.show, std::string(kPlaceHelp) + ", or a chunk file elsewhere");
  show->add_option("CHUNK", commands.show.chunk, kChunkHelp);
  auto* text = show->add_flag("--text", commands.show.text, "Whole payloads");
  show->add_option("--bytes", commands.show.bytes,
                   "How many of the first bytes of a payload (default: 60)")
      ->excludes(text);
  AddJson(*show, commands.show);

  CLI::App* verify = app.add_subcommand("verify", "Reads every chunk and names the damaged ones");
  AddCommonOptions(*verify, commands.verify, kPlaceHelp);
  verify->add_flag("-a,--all", commands.verify.all, "Name healthy chunks, too");
  AddJson(*verify, commands.verify);

  CLI::App* exporting = app.add_subcommand("export", "Writes events as lines of JSON, or raw");
  AddCommonOptions(*exporting, commands.exporting, kPlaceHelp);
  exporting->add_option("CHUNK", commands.exporting.chunks,
                        std::string(kChunkHelp) + " (default: all chunks)");
  const std::map<std::string, ExportFormat> formats{{"json", ExportFormat::Json},
                                                    {"raw", ExportFormat::Raw}};
  exporting
      ->add_option("--format", commands.exporting.format,
                   "json: a line for each event; raw: its payload (default: json)")
      ->transform(CLI::CheckedTransformer(formats))
      ->option_text("json|raw");
  exporting->add_option("-o,--output", commands.output, "A file instead of the standard output");
  exporting->add_flag("--salvage", commands.exporting.salvage,
                      "Of a damaged chunk, take what can be read");
}

void AddChangers(CLI::App& app, Commands& commands) {
  CLI::App* requeue = app.add_subcommand("requeue", "Puts events back, at the end of the cache");
  AddCommonOptions(*requeue, commands.requeue, kPlaceHelp);
  requeue->add_option("FILE", commands.requeue.files, "Lines of JSON as exported, or chunk files")
      ->required();
  requeue->add_flag("--salvage", commands.requeue.salvage,
                    "Of a damaged chunk, take what can be read");
  requeue->add_flag("--remove", commands.requeue.removeFiles,
                    "Remove the files when all of it is in the cache; damaged ones stay");
  requeue
      ->add_option("--chunk-size", commands.requeue.chunkSize,
                   "How many bytes make a chunk (default: 4194304)")
      ->check(CLI::Range(std::uint64_t{1}, std::uint64_t{1} << 30));
  AddJson(*requeue, commands.requeue);

  CLI::App* quarantine = app.add_subcommand("quarantine", "Moves chunks out of the way");
  AddCommonOptions(*quarantine, commands.quarantine, kPlaceHelp);
  auto* chunks = quarantine->add_option("CHUNK", commands.quarantine.chunks, kChunkHelp);
  quarantine->add_flag("--damaged", commands.quarantine.damaged, "All that are damaged")
      ->excludes(chunks);
  quarantine->add_flag("--force", commands.quarantine.force, "A healthy chunk, too");
  AddJson(*quarantine, commands.quarantine);
}

ExitCode Export(const Commands& commands) {
  if (commands.output.empty()) {
    return RunExport(commands.exporting, std::cout, std::cerr);
  }
  OutputFile file(OrloAgent::ToPath(commands.output));
  const ExitCode code = RunExport(commands.exporting, file.Stream(), std::cerr);
  file.Keep();
  return code;
}

ExitCode Run(const std::string& name, const Commands& commands) {
  if (name == "list") {
    return RunList(commands.list, std::cout, std::cerr);
  }
  if (name == "show") {
    return RunShow(commands.show, std::cout, std::cerr);
  }
  if (name == "verify") {
    return RunVerify(commands.verify, std::cout, std::cerr);
  }
  if (name == "export") {
    return Export(commands);
  }
  if (name == "requeue") {
    return RunRequeue(commands.requeue, std::cout, std::cerr);
  }
  if (commands.quarantine.chunks.empty() && !commands.quarantine.damaged) {
    throw ToolError("Which chunks? Name them, or give --damaged", kWrongUsage);
  }
  return RunQuarantine(commands.quarantine, std::cout, std::cerr);
}

}  // namespace

int main(int argc, char** argv) {
  OrloAgent::PrepareProcess();
  CLI::App app("Looks into event caches, and mends them.", "orlo-cache");
  // A path may begin with a slash on Windows, too.
  app.allow_windows_style_options(false);
  app.set_version_flag("--version", "orlo-cache " ORLO_VERSION);
  app.require_subcommand(1);
  Commands commands;
  for (CommonOptions* const options : std::initializer_list<CommonOptions*>{
           &commands.list, &commands.show, &commands.verify, &commands.exporting, &commands.requeue,
           &commands.quarantine}) {
    options->check.pageSize = GetPageSize();
  }
  AddReaders(app, commands);
  AddChangers(app, commands);
  try {
    std::vector<std::string> arguments = OrloAgent::GetArguments(argc, argv);
    // That is the order in which they are taken off.
    std::reverse(arguments.begin(), arguments.end());
    app.parse(arguments);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? kDone : kWrongUsage;
  }
  try {
    const ExitCode code = Run(app.get_subcommands().front()->get_name(), commands);
    std::cout.flush();
    if (!std::cout) {
      throw ToolError("The output can't be written");
    }
    return code;
  } catch (const ToolError& error) {
    std::cerr << "orlo-cache: " << error.what() << ".\n";
    return error.GetCode();
  } catch (const std::exception& error) {
    std::cerr << "orlo-cache: " << error.what() << ".\n";
    return kFailed;
  }
}
