#pragma once

#include <string>
#include <vector>

namespace Norvctl {

// Sets the command line that a process for another target repeats; main does.
void commandLineIs(int argc, char** argv);

// Does what this process was called for on each host, in a process of its own for each, at the same
// time; prints a line per host and returns the worst exit status. `files` must not have "-".
int runOnEach(const std::vector<std::string>& hosts, const std::vector<std::string>& files,
              bool json);
// The same for a single call: the line has the response.
int callOnEach(const std::vector<std::string>& hosts, bool json);
// The same for a replay: the line has its counts.
int replayOnEach(const std::vector<std::string>& hosts, bool json);

// A program that has ended.
struct Finished {
  int status = 0;  // as a shell has it
  std::string out;
  std::string err;
};
// Runs this program with other arguments, all of them started before the first is waited for.
std::vector<Finished> runSelf(const std::vector<std::vector<std::string>>& argumentLists);
// Runs this program on this terminal, and returns its exit status as a shell has it.
int runSelfHere(const std::vector<std::string>& arguments);

}  // namespace Norvctl
