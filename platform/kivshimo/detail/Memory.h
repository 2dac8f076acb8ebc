// Pages that are made before they are used, so that nobody waits for them on the path of a change.
//
// Any thread. Changes what is waited for, and nothing else.
#pragma once

#include <cstddef>

namespace KivShimo::detail {

/// Has the pages from `place` on made now: a store into one that is not there yet waits for the
/// kernel, which takes longer than a change. For logs, which go through their file page by page;
/// called behind what is published. Where the kernel cannot (before 5.14, or with larger pages),
/// the stores wait as they would have.
void makePages(const void* place, std::size_t bytes);

}  // namespace KivShimo::detail
