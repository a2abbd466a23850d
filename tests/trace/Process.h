#pragma once

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

// What a program wrote and how it ended.
struct Outcome {
  int status = -1;  // exit code, or -signal
  std::string out;
  std::string error;
};

// Starts a program; standard output and error go into the two descriptors.
inline pid_t start(const std::vector<std::string>& words, const char* setting, int out, int error) {
  const pid_t child = ::fork();
  if (child != 0) return child;
  if (out >= 0) ::dup2(out, STDOUT_FILENO);
  if (error >= 0) ::dup2(error, STDERR_FILENO);
  if (setting) {
    ::setenv("LUMO_TRACE", setting, 1);
  } else {
    ::unsetenv("LUMO_TRACE");
  }
  std::vector<char*> arguments;
  for (const std::string& word : words) arguments.push_back(const_cast<char*>(word.c_str()));
  arguments.push_back(nullptr);
  ::execv(arguments[0], arguments.data());
  ::_exit(127);
}

inline int ended(pid_t child) {
  int status = 0;
  while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

inline std::string contentsAndClose(int descriptor) {
  std::string text;
  char part[4096];
  ::lseek(descriptor, 0, SEEK_SET);
  for (ssize_t count; (count = ::read(descriptor, part, sizeof part)) > 0;) {
    text.append(part, static_cast<std::size_t>(count));
  }
  ::close(descriptor);
  return text;
}

inline int temporaryDescriptor() {
  char name[] = "/tmp/trace-output-XXXXXX";
  const int descriptor = ::mkstemp(name);
  ::unlink(name);
  return descriptor;
}

// Runs a program to its end.
inline Outcome run(const std::vector<std::string>& words, const char* setting = nullptr) {
  const int out = temporaryDescriptor();
  const int error = temporaryDescriptor();
  Outcome outcome;
  outcome.status = ended(start(words, setting, out, error));
  outcome.out = contentsAndClose(out);
  outcome.error = contentsAndClose(error);
  return outcome;
}
