#include "tests/support/fake_threads.h"

#include <dlfcn.h>
#include <pthread.h>

#include <cerrno>
#include <memory>

#include "tests/support/failing_allocations.h"

namespace {

using Start = int(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);

std::size_t may_start = qvx::test::FakeThreads::kAny;
std::size_t may_allocate = qvx::test::FakeThreads::kAny;

struct Work {
  void* (*run)(void*);
  void* with;
  std::size_t successes;
};

void* run_short_of_memory(void* work) {
  const Work of = *std::unique_ptr<Work>(static_cast<Work*>(work));
  const qvx::test::FailingAllocations failures(of.successes, qvx::test::FailingAllocations::Failing::lasting);
  return of.run(of.with);
}

}  // namespace

extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*run)(void*),
                              void* with) {
  static Start* const start = reinterpret_cast<Start*>(dlsym(RTLD_NEXT, "pthread_create"));
  if (may_start == 0) return EAGAIN;
  if (may_start != qvx::test::FakeThreads::kAny) --may_start;
  if (may_allocate == qvx::test::FakeThreads::kAny) return start(thread, attributes, run, with);
  auto work = std::make_unique<Work>(Work{run, with, may_allocate});
  const int error = start(thread, attributes, run_short_of_memory, work.get());
  if (error == 0) static_cast<void>(work.release());
  return error;
}

namespace qvx::test {

FakeThreads::FakeThreads(std::size_t started, std::size_t successes) {
  may_start = started;
  may_allocate = successes;
}

FakeThreads::~FakeThreads() {
  may_start = may_allocate = kAny;
}

}  // namespace qvx::test
