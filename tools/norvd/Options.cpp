#include "Options.h"

#include <CLI/CLI.hpp>
#include <cstdlib>
#include <iostream>

#include "Version.h"
#include "agent/PageAddress.h"

namespace Norvd {

namespace {

constexpr const char* footer =
    "Exit status: 0 ended by a signal; 2 bad options, or another norvd has the switch; 75 the "
    "connection is lost after the switch was as wanted, 76 before it was: who supervises starts it "
    "again. With --supervise only the very first start ends in 2.";

constexpr const char* description = R"(.SH DESCRIPTION
Looks at the switch, compares it with the document, carries out the difference and looks again:
every few seconds, when the document changes and when the connection is lost. What goes wrong with
the connection ends the process; who supervises starts it again.
)";

constexpr const char* signalsAndFiles = R"(.SH SIGNALS
SIGTERM and SIGINT end it within a second; SIGHUP has it read the document again.
.SH FILES
.TP
.I /etc/norvd/wanted.yaml
the document of the service
.TP
.I /etc/norvd/options
the options of the service, as NORVD_OPTIONS=
.TP
.I /var/lib/norvd
what outlives the process, for each switch
)";

// Written so that what is no number is none of them.
std::string secondsCheck(const std::string& text) {
  double seconds = 0;
  const bool read = CLI::detail::lexical_cast(text, seconds);
  return read && seconds >= 0.01 && seconds <= 1e6 ? "" : text + " is not from 0.01 to 1e6";
}

std::string pagesCheck(const std::string& text) {
  return text == "off" || Norvctl::pageAddress(text)
             ? ""
             : text + " is neither HOST:PORT nor unix:PATH nor off";
}

// Seconds, as a person gives them.
void addSeconds(CLI::App& app, const std::string& name, double& seconds, const std::string& what) {
  app.add_option(name, seconds, what)
      ->check(secondsCheck)
      ->type_name("SECONDS")
      ->capture_default_str();
}

std::chrono::milliseconds milliseconds(double seconds) {
  return std::chrono::milliseconds(static_cast<std::int64_t>(seconds * 1000));
}

struct Parsed {
  Options options;
  double interval = 5;
  double stuckAfter = 10;
  bool man = false;
};

void describe(CLI::App& app, Parsed& parsed) {
  Options& options = parsed.options;
  app.add_option("--wanted", options.wanted, "the wanted switch, a document of one or more files")
      ->type_name("FILE");
  app.add_option("--host", options.host, "the daemon's host")
      ->envname("NORV_HOST")
      ->check([](const std::string& host) { return host.empty() ? "a host has a name" : ""; })
      ->type_name("HOST")
      ->capture_default_str();
  app.add_option("--port", options.port, "the daemon's port")
      ->envname("NORV_PORT")
      ->check(CLI::Range(1, 65535))
      ->type_name("PORT")
      ->capture_default_str();
  app.add_flag("--prune", options.prune, "delete what the document does not have");
  app.add_flag("--observe", options.observe, "only report what differs");
  app.add_flag("--allow-mass-delete", options.allowMassDelete,
               "carry out what deletes more than half of a switch of ten objects or more");
  app.add_flag("--recreate-unknown", options.recreateUnknown,
               "set again what the daemon does not tell and no record knows");
  addSeconds(app, "--interval", parsed.interval, "between two looks at the switch");
  addSeconds(app, "--stuck-after", parsed.stuckAfter,
             "a command without an answer for so long ends the process");
  app.add_option("--state-dir", options.stateDir,
                 "where to keep what must outlive the process, or none")
      ->type_name("DIR")
      ->capture_default_str();
  app.add_option("--http", options.http, "serve the pages at HOST:PORT or unix:PATH, or off")
      ->check(pagesCheck)
      ->type_name("ADDR")
      ->capture_default_str();
  app.add_flag("--supervise", options.supervise,
               "start norvd as a child, and again whenever it ends");
  app.set_version_flag("--version", "norvd " + std::string(Norvctl::version));
  app.add_flag("--man", parsed.man, "print the manual page")->group("");
  app.footer(footer);
}

constexpr const char* summary = "Keeps a switch as a document wants it.";

}  // namespace

Options optionsOf(int argc, char** argv) {
  CLI::App app(summary, "norvd");
  Parsed parsed;
  describe(app, parsed);
  Options& options = parsed.options;
  try {
    app.parse(argc, argv);
    if (parsed.man) {
      std::cout << manualPage();
      std::exit(ended);
    }
    if (options.wanted.empty()) {
      throw CLI::RequiredError("--wanted FILE, the document of the wanted switch,");
    }
  } catch (const CLI::ParseError& error) {
    std::exit(app.exit(error) == 0 ? ended : unusable);
  }
  options.interval = milliseconds(parsed.interval);
  options.stuckAfter = milliseconds(parsed.stuckAfter);
  if (options.stateDir == "none") options.stateDir.clear();
  if (options.http == "off") options.http.clear();
  const bool bareV6 = options.host.find(':') != std::string::npos && options.host.front() != '[';
  if (bareV6) options.host = "[" + options.host + "]";
  return options;
}

std::string manualPage() {
  CLI::App app(summary, "norvd");
  Parsed parsed;
  describe(app, parsed);
  std::string page =
      ".TH NORVD 8\n.SH NAME\nnorvd \\- keeps a switch as a document wants it\n"
      ".SH SYNOPSIS\n.B norvd \\-\\-wanted\n.I FILE...\n.RI [ OPTIONS ]\n" +
      std::string(description) + ".SH OPTIONS\n";
  for (const CLI::Option* option : app.get_options()) {
    if (option->get_group().empty()) continue;
    std::string name;
    for (const char c : option->get_name(false, true)) name += c == '-' ? "\\-" : std::string(1, c);
    page += ".TP\n.B " + name;
    if (option->get_items_expected_max() > 0) page += " " + option->get_type_name();
    page += "\n" + option->get_description();
    const std::string usual = option->get_default_str(), variable = option->get_envname();
    if (!usual.empty()) page += " (usually " + usual + ")";
    if (!variable.empty()) page += "; without it the environment's " + variable;
    page += "\n";
  }
  return page + signalsAndFiles + ".SH EXIT STATUS\n" + footer + "\n.SH SEE ALSO\nnorvctl(1)\n";
}

}  // namespace Norvd
