#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <filesystem>

#include "Dump.h"
#include "Export.h"
#include "Stat.h"

namespace {

// The options that say which records, the same for every command.
struct FilterOptions {
  std::string levels;
  std::string since;
  std::vector<std::string> facilities;
  std::vector<std::string> functions;

  void addTo(CLI::App& command) {
    command.add_option(
        "--level", levels,
        "levels under which records were logged, 5, 0-5 or *: those of their points, "
        "unless their module maps them");
    command.add_option("--facility", facilities, "only these facilities")->delimiter(',');
    command.add_option("--function", functions, "only these functions")->delimiter(',');
    command.add_option("--since", since,
                       "from this moment (2026-01-31T12:00:00, UTC), or that long before the "
                       "newest record (250ms, 90s, 5m, 2h)");
  }
  void applyTo(Filter& filter) {
    if (!levels.empty() && !filter.levelsIs(levels)) {
      throw CLI::ValidationError("--level",
                                 "\"" + levels + "\" is not like 5, 0-5 or *; levels are 0 to 9");
    }
    if (!since.empty() && !filter.sinceIs(since)) {
      throw CLI::ValidationError(
          "--since", "\"" + since + "\" is no time like 2026-01-31T12:00:00, 250ms, 90s, 5m or 2h");
    }
    filter.facilitiesIs(facilities);
    filter.functionsIs(functions);
  }
};

struct Arguments {
  std::string file;
  std::string format;
  std::string target;
  bool follow = false;
  bool json = false;
  FilterOptions filter;
};

int exportAs(const Arguments& arguments, Filter& filter) {
  std::error_code ignored;
  if (std::filesystem::equivalent(arguments.file, arguments.target, ignored)) {
    std::fprintf(stderr, "skein: %s is the recording itself: name another target\n",
                 arguments.target.c_str());
    return 1;
  }
  if (arguments.format == "ctf" && arguments.target == "-") {
    std::fprintf(stderr, "skein: the ctf format is a folder of files: name a new one\n");
    return 2;
  }
  filter.resolve(arguments.file);
  const Recording recording(arguments.file, filter);
  filter.reportUnmatched(recording.reader());
  // First: it may be the reason why there is nothing to export.
  const std::string problem = recording.reader().problem();
  if (!problem.empty()) std::fprintf(stderr, "skein: %s\n", problem.c_str());
  const auto exporter = arguments.format == "ctf"   ? exportCtf
                        : arguments.format == "svg" ? exportSvg
                                                    : exportPerfetto;
  const int status = exporter(recording, arguments.target);
  return problem.empty() ? status : 1;
}

int run(int count, char** words) {
  CLI::App app("Reads trace files, also while they are written or after their writer died.");
  app.require_subcommand(1);
  app.set_version_flag("--version", "skein " SKEIN_VERSION);
  Arguments arguments;
  const auto add = [&](const char* name, const char* help) {
    CLI::App* command = app.add_subcommand(name, help);
    command->add_option("FILE", arguments.file, "the trace file")->required();
    arguments.filter.addTo(*command);
    return command;
  };
  CLI::App* dumpCommand = add("dump", "write the records as lines, oldest first");
  dumpCommand->add_flag("-f,--follow", arguments.follow,
                        "go on with new records until interrupted");
  dumpCommand->add_flag("--json", arguments.json, "one JSON object per line");
  CLI::App* statCommand = add("stat", "say what the file holds, what was lost, and who wrote it");
  statCommand->add_flag("--json", arguments.json, "one JSON object");
  CLI::App* exportCommand = add("export", "write the records for other programs");
  exportCommand
      ->add_option("TARGET", arguments.target,
                   "the folder (ctf) or file (perfetto, svg; - for standard output)")
      ->required();
  exportCommand
      ->add_option("--format", arguments.format,
                   "ctf (babeltrace2, Trace Compass), perfetto (Perfetto, chrome://tracing) or svg "
                   "(a picture)")
      ->required()
      ->check(CLI::IsMember({"ctf", "perfetto", "svg"}));
  DumpOptions options;
  try {
    app.parse(count, words);
    arguments.filter.applyTo(options.filter);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? 0 : 2;
  }
  if (*statCommand) return stat(arguments.file, options.filter, arguments.json);
  if (*exportCommand) return exportAs(arguments, options.filter);
  options.file = arguments.file;
  options.follow = arguments.follow;
  options.json = arguments.json;
  return dump(options);
}

}  // namespace

int main(int count, char** words) {
  try {
    return run(count, words);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "skein: %s\n", error.what());
    return 1;
  }
}
