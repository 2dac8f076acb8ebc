// One simulated switch: agent, hardware side, reference, and what must hold of them.
#pragma once

#include <array>
#include <memory>
#include <optional>
#include <tuple>

#include "platform/kivshimo/AnnounceLog.h"
#include "tests/model/FamilyDriver.h"
#include "tests/simulator/Hardware.h"
#include "tests/simulator/Kill.h"
#include "tests/simulator/Simulation.h"
#include "tests/simulator/Steps.h"

namespace Simulator {

class World {
public:
    struct Sizes {
        std::uint64_t slots;  ///< of each file
        unsigned keys;        ///< of each table
        unsigned requests;    ///< of each resource table
        std::uint32_t pool;   ///< indexes of each resource table
    };

    explicit World(const Sizes& sizes);
    World(const World&) = delete;
    World& operator=(const World&) = delete;
    ~World();

    /// Does a step; returns what is wrong, empty when nothing is.
    const std::string& step(const Step& step);
    /// Compares everything, which takes time.
    const std::string& compare();

    const Sizes& sizes() const { return sizes_; }
    Figures figures() const;
    /// Says where the simulation has come to.
    std::uint64_t digest() const;

private:
    static constexpr std::size_t kFamilies = 3;
    using Command = ModelTests::Command;

    const std::string& failure() const { return world_.verdict.failure(); }
    void expect(bool holds, std::string_view what) { world_.verdict.expect(holds, what); }

    // The agent.

    void act(const Command& command);
    void changeResource(const Command& command);
    void pauseIs(bool requested);
    void arrive();
    void settleAgent();
    void restartAgent();
    void killAgent(const Step& step);
    void endAgent();
    void startAgent();
    void expectAnnouncementsAnew();
    bool mayStayUnannounced(const ModelTests::Announced& announced) const;
    std::uint64_t lastTold(std::size_t which) const;
    void lookForRemoveAlls();
    void takeUpWhatWasCarriedOut();
    void note(std::uint32_t table, std::span<const std::byte> carried);

    // The hardware side.

    void pump(std::size_t budget);
    void restartHardware(bool isEmpty);
    void killHardware(const Step& step);
    void checkAcknowledgements();
    void checkHardware();

    // Both.

    void settle();
    void comeToRest();
    bool isSettled();
    std::uint64_t restingAt() const;
    void compareAtRest();
    std::uint64_t touched() const;
    void readAnnouncements();
    void matchAnnouncements();
    void matchAnnouncement(const KivShimo::Announcement& announcement);
    void checkCheaply(const Step& step);
    template <class Table>
    void compareRequests(std::size_t linkage, const Table& table,
                         const std::set<std::uint32_t>& held);
    template <class Table>
    void comparePoolAtRest(const Table& table);
    Files files(bool isHardwareSide) const;

    Sizes sizes_;
    ModelTests::World world_;
    TestSupport::InProcessAgent agent_;
    ModelTests::Setting setting_;
    std::array<std::unique_ptr<ModelTests::Family>, kFamilies> families_;
    Hardware hardware_;
    std::tuple<History<HwSide::ActionTypes>, History<HwSide::V4Types>, History<HwSide::V6Types>>
        histories_;
    Told told_;
    bool isChild_ = false;
    std::array<std::optional<std::size_t>, kFamilies> removedAll_;  ///< units, by a killed agent

    std::optional<KivShimo::AnnounceLogReader> reader_;
    std::uint64_t position_ = 0;
    std::vector<KivShimo::Announcement> unmatched_;        ///< read, and not compared yet
    std::map<std::uint32_t, std::uint64_t> announced_;     ///< the last version, by table
    std::map<std::uint32_t, std::uint64_t> acknowledged_;  ///< as last looked at, by table
    std::uint64_t consumed_ = 0;
    std::array<std::uint64_t, kFamilies> taken_{};  ///< versions that the agent has taken up
    unsigned away_ = 0;                             ///< steps for which the hardware side stays so
    bool hardwareKnown_ = true;                     ///< it has programmed what it acknowledged
    Figures figures_;
};

}  // namespace Simulator
