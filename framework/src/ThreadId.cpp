#include <Lumo/Assert.h>
#include <Lumo/ThreadId.h>

namespace Lumo {

pthread_t toPthread(U64 const& id) {
  LUMO_ASSERT(sizeof(U64) >= sizeof(pthread_t), "sizeof( U64 ) >= sizeof( pthread_t )");
  return static_cast<pthread_t>(id);
}

U64 toU64(pthread_t const& thread) {
  LUMO_ASSERT(sizeof(U64) >= sizeof(pthread_t), "sizeof( U64 ) >= sizeof( pthread_t )");
  return static_cast<U64>(thread);
}

}  // namespace Lumo
