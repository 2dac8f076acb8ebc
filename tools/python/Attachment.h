// A state directory that is attached, and who of a script's threads may use it when.
//
// Files are read with the interpreter's lock held, which keeps threads apart. Processes are asked
// without it, one thread at a time.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "inspect/Processes.h"
#include "tools/python/Bind.h"

namespace Python {

class Attachment {
public:
    /// Throws Inspect::StateDirectoryError.
    explicit Attachment(const std::string& root);

    const std::string& root() const { return root_; }
    bool isOpen() const { return system_ != nullptr; }
    void close() { system_.reset(); }
    /// Throws Inspect::QuestionError where it was closed. Its peers are for asking() only.
    std::shared_ptr<Inspect::System> system() const;

    /// Calls `look(state, report)`, and warns of what it reports.
    template <class Look>
    auto looking(const Look& look) {
        const auto system = this->system();
        Met met(*this);
        auto result = look(std::as_const(system->state), met.report());
        met.warn();
        return result;
    }
    /// Calls `use(system, report)` without the interpreter's lock, after it has connected to the
    /// processes anew, which may have ended or started since.
    template <class Use>
    auto asking(const Use& use) {
        const auto system = this->system();
        Met met(*this);
        auto result = [&] {
            const py::gil_scoped_release released;
            const std::lock_guard lock(asking_);
            system->agent.reconnect();
            system->hardware.reconnect();
            return use(*system, met.report());
        }();
        met.warn();
        return result;
    }

    /// All that were met, each once.
    const std::vector<Inspect::Damage>& damages() const { return damages_; }

private:
    /// Damages that one call meets; none is lost where it throws.
    class Met {
    public:
        explicit Met(Attachment& attachment) : attachment_(attachment) {}
        Met(const Met&) = delete;
        Met& operator=(const Met&) = delete;
        ~Met();

        Inspect::Report report() {
            return [this](const Inspect::Damage& damage) { met_.push_back(damage); };
        }
        void warn();

    private:
        void remember(const Inspect::Damage& damage);

        Attachment& attachment_;
        std::vector<Inspect::Damage> met_;
    };

    std::string root_;
    std::shared_ptr<Inspect::System> system_;
    std::mutex asking_;
    std::vector<Inspect::Damage> damages_;
};

/// A unit that somebody has named; nothing for None. Throws Inspect::QuestionError where no table
/// has it.
std::optional<std::uint16_t> unitIn(const Inspect::State& state, const py::object& number);

}  // namespace Python
