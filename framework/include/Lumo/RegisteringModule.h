#pragma once

#include <ios>

#include <Lumo/Exception.h>
#include <Lumo/TypeRegistry.h>

namespace Lumo {

// Base of a module's static initialiser: one object of a derived class per module, whose
// constructor registers the module's types. Several modules of one library file order theirs by
// init_priority.
class RegisteringModule {
 protected:
  RegisteringModule() = default;

  // `registered` is the module's own byte; it is zero once the type is known.
  static void registerType(const LumoType* type, char* registered) {
    typeNodeIs(type);
    *registered = 0;
  }

 private:
  std::ios_base::Init streams_;
  ExceptionTester exceptions_;
};

}  // namespace Lumo

// Orders the initialisers of the modules of the library file, lowest first.
#define LUMO_MODULE_PRIORITY(order) __attribute__((init_priority(1000 + (order))))
