// A text as a policy file: read to the end with findings, or compiled and shown.

#include "agent/PolicyCompiler.h"
#include "agent/PolicyErrors.h"
#include "agent/PolicyJson.h"
#include "fuzz/support/Input.h"
#include "platform/brumo/Assert.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Fuzz::Input input(data, size);
    try {
        const Agent::CompiledPolicy policy = Agent::policyFromText(input.takeRest(), "input");
        Brumo::require(
            policy.ipv4.size() <= Agent::kMaxEntries && policy.ipv6.size() <= Agent::kMaxEntries,
            "a policy fits the tables");
        Agent::policyJson(policy).dump();
    } catch (const Agent::PolicyError& error) {
        Brumo::require(!error.lines().empty(), "a refusal says why");
    }
    return 0;
}
