// The three tables as tests see them: what their generated tests are named, and entries made of a
// number.
#pragma once

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <cstdlib>
#include <string>

#include "catalogue/PolicyCpuTcamAction.h"
#include "catalogue/PolicyCpuV4TcamEntry.h"
#include "catalogue/PolicyCpuV6TcamEntry.h"

namespace TestSupport {

using AllBindings = ::testing::Types<VornPolicyCpu::PolicyCpuTcamActionBinding,
                                     VornPolicyCpu::PolicyCpuV4TcamEntryBinding,
                                     VornPolicyCpu::PolicyCpuV6TcamEntryBinding>;

/// Names the tests of a binding after its table.
struct TableName {
    template <class B>
    static std::string GetName(int /*index*/) {
        return std::string(B::Types::kName);
    }
};

template <class B>
typename B::Key keyOf(std::uint32_t number) {
    typename B::Key key;
    if constexpr (requires { key.rule; }) {
        key.rule = number;
        key.term = 0x55;
    } else {
        key.id = number;
        key.sub = 0x55;
    }
    return key;
}

/// A log entry under the key of that number. `word` is what its change record carries.
template <class B>
typename B::LogEntry logEntryOf(std::uint32_t number, std::uint32_t word = 0xABCDEF) {
    typename B::LogEntry logEntry;
    logEntry.key = keyOf<B>(number);
    if constexpr (requires { logEntry.redirect; }) {
        logEntry.redirect = word;
    } else {
        logEntry.actionId = word;
    }
    return logEntry;
}

/// Resource keys that differ by number, where the table has resources.
template <class B>
typename B::ResourceKeys resourceKeysOf(std::uint32_t number) {
    typename B::ResourceKeys keys;
    if constexpr (requires { keys.counterRequestKey; }) {
        keys.counterRequestKey.requestId = number;
        keys.policerRequestKey.requestId = number + 1;
    }
    return keys;
}

/// While it lives, shared memory is not mounted locally.
class NotLocal {
public:
    explicit NotLocal(const char* value = "1") { setenv("NOT_LOCAL_EM", value, 1); }
    NotLocal(const NotLocal&) = delete;
    NotLocal& operator=(const NotLocal&) = delete;
    ~NotLocal() { unsetenv("NOT_LOCAL_EM"); }
};

/// Deaths that tests provoke leave no core files behind, which take longer than the tests.
inline void withoutCoreFiles() {
    const rlimit none{0, 0};
    setrlimit(RLIMIT_CORE, &none);
}

}  // namespace TestSupport
