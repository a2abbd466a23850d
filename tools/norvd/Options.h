#pragma once

#include <chrono>
#include <string>
#include <vector>

#include <Lumo/Types.h>

namespace Norvd {

struct Options {
  std::vector<std::string> wanted;  // files of the document
  std::string host = "localhost";   // as a channel takes it
  U16 port = 10514;
  bool prune = false;
  bool observe = false;  // only reports what differs
  bool allowMassDelete = false;
  bool recreateUnknown = false;
  bool supervise = false;
  std::chrono::milliseconds interval{5000};     // between two looks at the switch
  std::chrono::milliseconds stuckAfter{10000};  // for a command, and for each question
  std::string stateDir = "/var/lib/norvd";      // empty: nothing is kept
  std::string http = "127.0.0.1:9514";          // HOST:PORT or unix:PATH; empty: no pages

  std::string address() const { return host + ":" + std::to_string(port); }
};

// How norvd ends, so that who supervises it knows what to do.
enum ExitStatus {
  ended = 0,
  unusable = 2,  // bad options, or another norvd has the switch: for a person to see to
  again = 75,    // the connection is lost, after the switch was as wanted: a fresh process goes on
  early = 76,    // the same before it was: who starts it again may pause
};

// Parses the command line. Ends the process for --help, --version and what is wrong with it.
Options optionsOf(int argc, char** argv);
// The manual page, in roff, from the same table.
std::string manualPage();

}  // namespace Norvd
