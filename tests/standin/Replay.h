#pragma once

#include <grpcpp/grpcpp.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

// Sends a recorded command file to a fresh stand-in, call by call, and compares the answers.

namespace StandinTest {

struct ReplayResult {
  int lines = 0;
  int codes = 0;   // Lines whose gRPC status code and error.code agree.
  int bodies = 0;  // Of those, lines whose response agrees too, volatile fields set aside.
  std::vector<std::string> differences;
};

// A channel over the network that passes by any proxy the machine has set.
std::shared_ptr<grpc::Channel> directChannel(const std::string& address);

std::filesystem::path recordingsFolder();
// Names of the command files without extension, sorted; empty when there is no folder.
std::vector<std::string> recordings();
ReplayResult replay(const std::string& recording);

}  // namespace StandinTest
