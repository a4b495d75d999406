// Work in a child that can be killed when a call holds it up: what run_apart() of
// platform/framework.h does, with the things that tests replace.
#ifndef VEX_FRAMEWORK_PROCESS_APART_H
#define VEX_FRAMEWORK_PROCESS_APART_H

#include <cstddef>

#include "platform/framework.h"

namespace vex {

// As run_apart(); `ending` is asked while waiting.
size_t RunApart(apart_fn step, size_t count, void *results, size_t size, int limit_ms, int whole_ms,
                bool (*ending)());

}  // namespace vex

#endif
