// Version, reset and end of the daemon, plugins and packet pools.

#include <elf.h>

#include <cerrno>
#include <fstream>

#include "Daemon.h"
#include "Refusal.h"

namespace Standin {

namespace {

constexpr std::uint32_t poolSize = 16384;  // Packets.

// Whether the file could be loaded; it is not, since a stand-in runs nobody's code.
bool isSharedObject(const std::string& path) {
  Elf64_Ehdr header{};
  std::ifstream file(path, std::ios::binary);
  file.read(reinterpret_cast<char*>(&header), sizeof header);
  return file && std::string(reinterpret_cast<const char*>(header.e_ident), SELFMAG) == ELFMAG &&
         header.e_type == ET_DYN;
}

}  // namespace

void Daemon::getVersion(const bess::pb::EmptyRequest&, bess::pb::VersionResponse& response) {
  response.set_version(options_.version);
}

void Daemon::resetAll(const bess::pb::EmptyRequest& request, bess::pb::EmptyResponse& response) {
  resetModules(request, response);
  resetPorts(request, response);
  resetTcs(request, response);
  resetWorkers(request, response);
}

void Daemon::killBess(const bess::pb::EmptyRequest&, bess::pb::EmptyResponse&) {
  if (options_.onKill) options_.onKill();
}

void Daemon::importPlugin(const bess::pb::ImportPluginRequest& request, bess::pb::EmptyResponse&) {
  const std::string& path = request.path();
  const Pause pause(*this);
  if (unloadedPlugins_.count(path) > 0) throw HandlerFailure("Unexpected error in RPC handling");
  // The empty path is the daemon itself.
  if (!path.empty() && !isSharedObject(path)) throw Refusal(-1, "Failed loading plugin " + path);
  plugins_.insert(path);
}

void Daemon::unloadPlugin(const bess::pb::UnloadPluginRequest& request, bess::pb::EmptyResponse&) {
  const std::string& path = request.path();
  const Pause pause(*this);
  if (plugins_.erase(path) == 0) throw Refusal(-1, "Failed unloading plugin " + path);
  if (!path.empty()) unloadedPlugins_.insert(path);
}

void Daemon::listPlugins(const bess::pb::EmptyRequest&, bess::pb::ListPluginsResponse& response) {
  for (const std::string& path : plugins_) response.add_paths(path);
}

void Daemon::dumpMempool(const bess::pb::DumpMempoolRequest& request,
                         bess::pb::DumpMempoolResponse& response) {
  // One memory socket has a pool; asking for another, or for one that cannot be, finds none.
  if (request.socket() != -1 && request.socket() != 0) return;
  bess::pb::MempoolDump& pool = *response.add_dumps();
  pool.set_initialized(true);
  pool.set_mp_size(poolSize);
  pool.set_mp_cache_size(512);
  pool.set_mp_element_size(2560);
  pool.set_mp_populated_size(poolSize);
  pool.set_mp_available_count(poolSize);
  pool.set_ring_count(poolSize);
  pool.set_ring_free_count(poolSize - 1);
  pool.set_ring_bytes(static_cast<std::uint64_t>(-EINVAL));
}

}  // namespace Standin
