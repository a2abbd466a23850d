// Where each attribute stands in the metadata of a packet. An attribute is shared by the modules
// that write it, those that read what was written, and all on the way between them: a scope. Scopes
// that meet in a module get bytes of their own; others may use the same bytes.

#include <bit>
#include <set>

#include "Pipeline.h"

namespace Standin {

namespace {

constexpr std::uint64_t metadataSize = 96;  // Bytes.
constexpr std::uint64_t maxAlignment = 8;   // Bytes.

// In place of an offset.
constexpr std::int64_t writtenForNobody = -1;
constexpr std::int64_t readFromNobody = -2;
constexpr std::int64_t noRoom = -3;

struct Scope {
  std::string name;
  std::uint64_t size = 0;
  std::set<Module*> writers;
  std::set<Module*> readers;
  std::set<Module*> members;  // Writers, readers and what lies between.
  bool complete = true;       // No way leads to a reader without passing a writer.
  std::int64_t offset = 0;
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
  std::set<Module*> seen;
  std::vector<Module*> open = {&writer};
  while (!open.empty()) {
    Module& module = *open.back();
    open.pop_back();
    for (const auto& [number, gate] : module.outputs) {
      Module& next = *gate.target;
      if (!seen.insert(&next).second) continue;
      if (findAttribute(next, scope, false) != nullptr && scope.readers.insert(&next).second)
        newReaders.push_back(&next);
      if (findAttribute(next, scope, true) == nullptr) open.push_back(&next);
    }
  }
}

// Adds what lies before `reader`, back to the last writers.
void traceBack(Module& reader, Scope& scope, std::vector<Module*>& newWriters) {
  std::set<Module*> seen;
  std::vector<Module*> open = {&reader};
  while (!open.empty()) {
    Module& module = *open.back();
    open.pop_back();
    scope.members.insert(&module);
    if (module.inputs.empty()) scope.complete = false;
    for (const auto& [number, gate] : module.inputs)
      for (const auto& source : gate.sources) {
        Module& previous = *source.first;
        if (!seen.insert(&previous).second) continue;
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

bool meet(const Scope& a, const Scope& b) {
  for (Module* module : a.members)
    if (b.members.count(module) > 0) return true;
  return false;
}

// The first place that no scope placed before and met somewhere has taken.
std::int64_t firstFit(const Scope& scope, const std::vector<Scope>& placed) {
  const std::uint64_t alignment = std::min(std::bit_ceil(scope.size), maxAlignment);
  for (std::uint64_t at = 0; at + scope.size <= metadataSize; at += alignment) {
    bool free = true;
    for (const Scope& other : placed) {
      const auto begin = static_cast<std::uint64_t>(other.offset);
      if (other.offset >= 0 && at < begin + other.size && begin < at + scope.size)
        free = free && !meet(scope, other);
    }
    if (free) return static_cast<std::int64_t>(at);
  }
  return noRoom;
}

void store(const Scope& scope) {
  const bool used = !scope.readers.empty() && scope.complete;
  for (Module* module : scope.writers)
    findAttribute(*module, scope, true)->offset = used ? scope.offset : writtenForNobody;
  for (Module* module : scope.readers)
    findAttribute(*module, scope, false)->offset = used ? scope.offset : readFromNobody;
}

}  // namespace

void assignMetadata(const Pipeline& pipeline) {
  for (const auto& [name, module] : pipeline.withMetadata())
    for (Attribute& attribute : module->state->attributes) attribute.offset = readFromNobody;

  std::vector<Scope> placed;
  for (const auto& [name, module] : pipeline.withMetadata())
    for (const Attribute& attribute : module->state->attributes) {
      // A writer whose attribute an earlier scope has settled is done.
      if (!writes(attribute) || attribute.offset != readFromNobody) continue;
      Scope scope = scopeOf(*module, attribute);
      if (!scope.readers.empty() && scope.complete) {
        scope.offset = firstFit(scope, placed);
        placed.push_back(scope);
      }
      store(scope);
    }
}

}  // namespace Standin
