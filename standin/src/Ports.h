#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <span>
#include <string>
#include <vector>

#include <bess/pb/service.pb.h>

#include "AutomaticNames.h"

namespace Standin {

enum class Direction { Inc, Out };

struct PortDriver;

// A port. Queues that a module uses are marked until its claim ends.
struct Port {
  std::string name;
  const PortDriver* driver = nullptr;
  std::string device;  // The device or socket that the driver holds for it.
  bess::pb::PortConf conf;
  bool linkUp = true;
  std::set<std::string> extraMacs;
  std::uint64_t incSize = 0;  // Of each queue, in packets.
  std::uint64_t outSize = 0;
  google::protobuf::Any arg;  // As given at creation.
  std::vector<bool> incUsed;  // One mark for each queue.
  std::vector<bool> outUsed;

  std::vector<bool>& used(Direction direction) {
    return direction == Direction::Inc ? incUsed : outUsed;
  }
  bool busy() const;
};

// A row of the table of port drivers.
struct PortDriver {
  const char* name;
  const char* namePrefix;
  const char* help;
  std::uint64_t maxQueues;  // For each direction.
  bool configurable;        // setPortConf may change a port of it.
  std::uint32_t speed;      // Mbit/s; 0 when it has none.
  bool autoneg;
  // Takes the device that the request names and answers its name; refuses otherwise.
  std::string (*open)(const bess::pb::CreatePortRequest& request, const std::string& name,
                      class Ports& ports);
};

// Marks on queues of one port, taken back when it ends. The port must live longer.
class QueueClaim {
 public:
  // Refuses with EINVAL when there is no such queue, with EBUSY when one is in use.
  QueueClaim(Port& port, Direction direction, std::int64_t queue);
  ~QueueClaim();
  QueueClaim(const QueueClaim&) = delete;
  QueueClaim& operator=(const QueueClaim&) = delete;
  Port& port() const { return port_; }
  std::size_t queues() const { return queues_.size(); }

 private:
  Port& port_;
  Direction direction_;
  std::vector<std::size_t> queues_;
};

// The ports and the devices they hold. Not thread safe; see Daemon.
class Ports {
 public:
  static std::span<const PortDriver> drivers();
  static const PortDriver* findDriver(const std::string& name);

  Port& create(const bess::pb::CreatePortRequest& request);
  // Refuses with EBUSY while a module uses a queue.
  void destroy(const std::string& name);
  // Stops with EBUSY at the first port, in the order of names, that is in use.
  void reset();
  // The port that a request to configure names; refuses what is wrong on the face of it.
  Port& configurable(const bess::pb::SetPortConfRequest& request) const;
  // A refusal by the device leaves what was changed before it, and the link down.
  void configure(Port& port, const bess::pb::PortConf& conf);
  void addMac(const std::string& name, const std::string& mac);
  void removeMac(const std::string& name, const std::string& mac);

  const std::map<std::string, std::unique_ptr<Port>>& all() const { return ports_; }
  // Null when there is none of that name.
  Port* find(const std::string& name) const;

  // For the drivers: devices by name, with a number that stays while the port lives.
  bool deviceInUse(const std::string& device) const { return devices_.count(device) > 0; }
  bool deviceNumberInUse(std::uint64_t number) const { return deviceNumbers_.count(number) > 0; }

 private:
  std::string randomMac();

  std::map<std::string, std::unique_ptr<Port>> ports_;
  std::map<std::string, std::uint64_t> devices_;
  std::set<std::uint64_t> deviceNumbers_;
  std::uint64_t lowestNumber_ = 0;  // None below it is free.
  AutomaticNames names_;
  std::mt19937_64 random_;  // Not seeded: the same calls lead to the same addresses.
};

}  // namespace Standin
