#include <dlfcn.h>

#include <iostream>

#include <Lumo/TypeRegistry.h>

namespace {

void print() {
  for (const Lumo::LumoType* type : Lumo::typeNodes()) std::cout << type->typeName() << '\n';
}

}  // namespace

// Knows the framework only: prints the registered types, loads the library file it is given, and
// prints them again.
int main(int argc, char** argv) {
  if (argc != 2) {
    std::cerr << "usage: registry_dump LIBRARY\n";
    return 2;
  }
  print();
  if (!dlopen(argv[1], RTLD_NOW)) {
    std::cerr << dlerror() << '\n';
    return 1;
  }
  std::cout << "loaded\n";
  print();
}
