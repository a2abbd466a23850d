#pragma once

#include <grpcpp/grpcpp.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

// Sends a recorded conversation with a daemon to a fresh stand-in, call by call, and compares the
// answers. A recording begins with the daemon's start.

namespace StandinTest {

// A line whose answer differs. Lines with the same `subject` and `outcomes` usually differ for the
// same reason.
struct Difference {
  int line;
  std::string subject;   // The request, with class and command where it has them.
  std::string outcomes;  // Recorded code -> answered code.
  std::string request;
  std::string recorded;
  std::string answered;
};

struct ReplayResult {
  int lines = 0;
  int codes = 0;   // Lines whose gRPC status code and error.code agree.
  int bodies = 0;  // Of those, lines whose response agrees too, volatile fields set aside.
  std::vector<Difference> differences;

  double codeShare() const { return lines == 0 ? 0 : static_cast<double>(codes) / lines; }
  double bodyShare() const { return lines == 0 ? 0 : static_cast<double>(bodies) / lines; }
  std::string summary() const;
  ReplayResult& operator+=(const ReplayResult& other);
};

// A channel over the network that passes by any proxy the machine has set.
std::shared_ptr<grpc::Channel> directChannel(const std::string& address);

// The recordings in a folder, sorted; empty when there is no such folder.
std::vector<std::filesystem::path> recordings(const std::filesystem::path& folder);
ReplayResult replay(const std::filesystem::path& recording);

}  // namespace StandinTest
