// Where each attribute stands in the metadata of a packet. An attribute is shared by the modules
// that write it, those that read what was written, and all on the way between them: a scope. Scopes
// that meet in a module get bytes of their own; others may use the same bytes.

#include "Metadata.h"

#include <bit>
#include <bitset>
#include <set>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace Standin {

namespace {

constexpr std::uint64_t metadataSize = 96;  // Bytes.
constexpr std::uint64_t maxAlignment = 8;   // Bytes.

// In place of an offset.
constexpr std::int64_t writtenForNobody = -1;
constexpr std::int64_t readFromNobody = -2;
constexpr std::int64_t noRoom = -3;

using Modules = std::unordered_set<Module*>;
using Bytes = std::bitset<metadataSize>;

struct Scope {
  std::string name;
  std::uint64_t size = 0;
  Modules writers;
  Modules readers;
  Modules members;       // Writers, readers and what lies between.
  bool complete = true;  // No way leads to a reader without passing a writer.
  std::int64_t offset = 0;

  // What was looked at forwards from its writers, and backwards from its readers.
  Modules seenBehind;
  Modules seenBefore;

  bool used() const { return !readers.empty() && complete; }
};

bool writes(const Attribute& attribute) {
  return attribute.mode == Attribute::Mode::Write;
}

Attribute* findAttribute(Module& module, const Scope& scope, bool writing) {
  for (Attribute& attribute : module.state->attributes)
    if (attribute.name == scope.name && attribute.size == scope.size &&
        writes(attribute) == writing)
      return &attribute;
  return nullptr;
}

// Adds what reads after `writer`, up to the next writers.
void follow(Module& writer, Scope& scope, std::vector<Module*>& newReaders) {
  std::vector<Module*> open = {&writer};
  while (!open.empty()) {
    Module& module = *open.back();
    open.pop_back();
    for (const auto& [number, gate] : module.outputs) {
      Module& next = *gate.target;
      if (!scope.seenBehind.insert(&next).second) continue;
      if (findAttribute(next, scope, false) != nullptr && scope.readers.insert(&next).second)
        newReaders.push_back(&next);
      if (findAttribute(next, scope, true) == nullptr) open.push_back(&next);
    }
  }
}

// Adds what lies before `reader`, back to the last writers.
void traceBack(Module& reader, Scope& scope, std::vector<Module*>& newWriters) {
  std::vector<Module*> open = {&reader};
  while (!open.empty()) {
    Module& module = *open.back();
    open.pop_back();
    scope.members.insert(&module);
    if (module.inputs.empty()) scope.complete = false;
    for (const auto& [number, gate] : module.inputs)
      for (const auto& source : gate.sources) {
        Module& previous = *source.first;
        if (!scope.seenBefore.insert(&previous).second) continue;
        if (findAttribute(previous, scope, true) == nullptr) {
          open.push_back(&previous);
        } else if (scope.writers.insert(&previous).second) {
          newWriters.push_back(&previous);
        }
      }
  }
}

Scope scopeOf(Module& writer, const Attribute& attribute) {
  Scope scope;
  scope.name = attribute.name;
  scope.size = attribute.size;
  scope.writers.insert(&writer);
  std::vector<Module*> newWriters = {&writer};
  while (!newWriters.empty()) {
    std::vector<Module*> newReaders;
    for (Module* module : newWriters) follow(*module, scope, newReaders);
    newWriters.clear();
    for (Module* module : newReaders) traceBack(*module, scope, newWriters);
  }
  scope.members.insert(scope.writers.begin(), scope.writers.end());
  return scope;
}

// The first place that no scope placed before and met somewhere has taken.
std::int64_t firstFit(const Scope& scope, const Bytes& taken) {
  const std::uint64_t alignment = std::min(std::bit_ceil(scope.size), maxAlignment);
  const Bytes wanted = ~Bytes() >> (metadataSize - scope.size);
  for (std::uint64_t at = 0; at + scope.size <= metadataSize; at += alignment)
    if ((taken & wanted << at).none()) return static_cast<std::int64_t>(at);
  return noRoom;
}

// Places scopes, one after the other, so that those that meet stand apart.
class Places {
 public:
  void place(Scope& scope) {
    Bytes taken;
    for (Module* module : scope.members) taken |= taken_[module];
    scope.offset = firstFit(scope, taken);
    if (scope.offset < 0) return;
    const Bytes own = ~Bytes() >> (metadataSize - scope.size)
                                      << static_cast<std::size_t>(scope.offset);
    for (Module* module : scope.members) taken_[module] |= own;
  }

 private:
  std::unordered_map<Module*, Bytes> taken_;
};

void store(const Scope& scope) {
  for (Module* module : scope.writers)
    findAttribute(*module, scope, true)->offset = scope.used() ? scope.offset : writtenForNobody;
  for (Module* module : scope.readers)
    findAttribute(*module, scope, false)->offset = scope.used() ? scope.offset : readFromNobody;
}

// Names and sizes of what any module reads.
std::set<std::pair<std::string, std::uint64_t>> readAnywhere(const Pipeline& pipeline) {
  std::set<std::pair<std::string, std::uint64_t>> read;
  for (const auto& [name, module] : pipeline.withMetadata())
    for (const Attribute& attribute : module->state->attributes)
      if (!writes(attribute)) read.emplace(attribute.name, attribute.size);
  return read;
}

// Gives every attribute of every module its place.
void assign(const Pipeline& pipeline) {
  const auto read = readAnywhere(pipeline);
  for (const auto& [name, module] : pipeline.withMetadata())
    for (Attribute& attribute : module->state->attributes) {
      const bool useless = read.count({attribute.name, attribute.size}) == 0;
      attribute.offset = useless ? writtenForNobody : readFromNobody;
    }

  Places places;
  for (const auto& [name, module] : pipeline.withMetadata())
    for (const Attribute& attribute : module->state->attributes) {
      // A writer whose attribute is settled, alone or by an earlier scope, is done.
      if (!writes(attribute) || attribute.offset != readFromNobody) continue;
      Scope scope = scopeOf(*module, attribute);
      if (scope.used()) places.place(scope);
      store(scope);
    }
}

}  // namespace

void Metadata::resumed() {
  ++resumes_;
  due_ = true;
}

void Metadata::beforeConnecting(const Module& from, const Module& to) {
  // What lies among modules that are new since the resume was no part of what it found.
  if (!newcomer(from) || !newcomer(to)) settle();
}

void Metadata::settle() {
  if (!due_) return;
  due_ = false;
  assign(pipeline_);
  for (const auto& [name, module] : pipeline_.withMetadata())
    if (newcomer(*module))
      for (Attribute& attribute : module->state->attributes) attribute.offset = 0;
}

}  // namespace Standin
