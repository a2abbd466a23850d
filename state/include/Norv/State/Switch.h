#pragma once

#include <google/protobuf/any.pb.h>

#include <compare>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

// What a switch looks like: the one type for a live switch and for a wanted one. What is optional
// is stated or not in a wanted switch, and told by the daemon or not in a live one; what is not
// stated is not managed, and what is not told is not compared. All of it is plain data.
namespace Norv::State {

using google::protobuf::Any;

inline constexpr std::int64_t workerLimit = 64;  // ids of workers are below it

struct Worker {
  std::int64_t core = 0;
  std::optional<bool> running;
  std::optional<std::string> scheduler;  // no daemon tells it
};

struct Port {
  std::string driver;
  std::optional<Any> arg;
  std::optional<std::uint64_t> incQueues;
  std::optional<std::uint64_t> outQueues;
  std::optional<std::uint64_t> incSize;  // of each queue, in packets
  std::optional<std::uint64_t> outSize;
  std::optional<std::string> mac;
  std::optional<std::uint32_t> mtu;
  std::optional<bool> adminUp;
};

// Where a traffic class or a task hangs: below another class, or at the top of a worker; with
// neither where the daemon puts it.
struct Place {
  std::string parent;
  std::int64_t worker = -1;
  std::optional<std::int64_t> priority;  // below a priority class
  std::optional<std::int64_t> share;     // below a weighted_fair class

  bool stated() const { return !parent.empty() || worker >= 0; }
  bool operator==(const Place&) const = default;
};
// What a place below a class of this policy has to have and this one lacks, "priority" or "share";
// empty: nothing.
std::string lacking(const Place& place, const std::string& policy);

// The entries of a module's table, as the serialized argument of the command that adds one, by the
// serialized fields that tell it from others.
using Entries = std::map<std::string, std::string>;

struct Module {
  std::string moduleClass;
  std::optional<Any> arg;
  std::map<std::string, std::uint64_t> settings;  // by the name of the class's row
  std::optional<Entries> table;
  std::vector<std::optional<Place>> tasks;  // by number; nullopt: not stated, or not there
};

struct Gate {
  std::string module;
  std::uint64_t number = 0;
  auto operator<=>(const Gate&) const = default;
};

struct HookPoint {
  Gate gate;
  bool output = true;
  std::string hookClass;
  std::string name;  // empty in a wanted switch: the daemon names it
  auto operator<=>(const HookPoint&) const = default;
};

struct TrafficClass {
  std::string policy;
  Place place;
  std::string resource;  // of rate_limit and weighted_fair; empty: not told
  std::optional<std::int64_t> limit;
  std::optional<std::int64_t> maxBurst;
};

struct Switch {
  std::set<std::string> plugins;  // paths
  std::map<std::int64_t, Worker> workers;
  // Whether workers are spoken of at all; where they are not, they are the daemon's own business.
  bool workersStated = true;
  std::map<std::string, Port> ports;
  std::map<std::string, Module> modules;
  std::map<Gate, Gate> connections;               // from an output gate to an input gate
  std::map<HookPoint, std::optional<Any>> hooks;  // with their arguments, which no daemon tells
  std::map<std::string, TrafficClass> trafficClasses;

  // Plugins, workers, ports, modules, connections, hooks and classes. The default hook is part of
  // its connection.
  std::size_t objects() const;
};

// What a plan takes away for a while and brings back without being told to: where it is cut short,
// the next one does.
struct Unfinished {
  Switch comesBack;                // of a module without an argument, the places of its tasks alone
  std::set<std::int64_t> holding;  // workers that only hold the tasks of others meanwhile

  bool empty() const { return comesBack.objects() == 0 && holding.empty(); }
};

// The hook that connectModules puts on an output gate unless it is told not to.
inline constexpr const char* defaultHookClass = "Track";
inline constexpr const char* defaultHookName = "track0";
HookPoint defaultHook(const Gate& output);

// Where packets of an unmatched key go when no default gate is set: nowhere.
inline constexpr std::uint64_t dropGate = 8192;

// How an object is called in a plan, an error or a record: its kind and its name.
enum class Kind { plugin, worker, port, module, connection, hook, trafficClass };
struct Object {
  Kind kind;
  std::string name;
  auto operator<=>(const Object&) const = default;
};
// The name of its section in a document, and of the queue that its commands travel in.
const char* sectionName(Kind kind);
// "port left", "connection fib:1".
std::string text(const Object& object);
Object objectOf(const Gate& output);
Object objectOf(const HookPoint& hook);

// An argument as a message, null when its type is none of the protocol or its bytes are not of it.
std::unique_ptr<google::protobuf::Message> unpacked(const Any& any);
// Whether two arguments say the same: maps in any order, fields at 0 or left out. An `Any` without
// type says the same as an empty message.
bool same(const Any& one, const Any& other);
// Serialized with maps in order, so that equal messages have equal bytes.
std::string serialized(const google::protobuf::Message& message);

}  // namespace Norv::State
