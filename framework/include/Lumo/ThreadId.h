#pragma once

#include <pthread.h>

#include <Lumo/Types.h>

namespace Lumo {

// A thread identity as a number, for places that store one as an attribute. The handle stands in
// the low bits, the rest is zero.
pthread_t toPthread(U64 const& id);
U64 toU64(pthread_t const& thread);

}  // namespace Lumo
