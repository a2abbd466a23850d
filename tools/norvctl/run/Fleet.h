#pragma once

#include <string>
#include <vector>

namespace Norvctl {

// Sets the command line that a process for another target repeats; main does.
void commandLineIs(int argc, char** argv);

// Whether one of the files can be read only once, as standard input and pipes: then each host would
// get a part of it. Tells so.
bool refusedForSeveral(const std::vector<std::string>& files);

// Does what this process was called for on each host, in a process of its own for each, at the same
// time; prints a line per host and returns the worst exit status, or that of a signal, which these
// processes get as well. The files must be those that each can read.
int runOnEach(const std::vector<std::string>& hosts, bool json);
// The same for a single call: the line has the response. `given` is the body on the command line,
// `body` its text.
int callOnEach(const std::vector<std::string>& hosts, bool json, const std::string& given,
               const std::string& body);
// The same for a replay: the line has its counts.
int replayOnEach(const std::vector<std::string>& hosts, bool json);

// Runs this program on this terminal, and returns its exit status as a shell has it.
int runSelfHere(const std::vector<std::string>& arguments);

}  // namespace Norvctl
