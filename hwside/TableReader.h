// One table's change log and configurations, looked up and programmed.
//
// Used by one thread. Files are opened when they are first needed and there.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "hwside/Group.h"
#include "hwside/Tcam.h"

namespace HwSide {

/// What became of a change.
enum class Applied : std::uint8_t {
    done,
    superseded,  ///< the value is of a later change, whose announcement follows
    rotten,      ///< the value does not verify: reported, nothing programmed
    lost,        ///< the record or the value is not there or does not verify
    busy,        ///< the agent is storing it
};

class TableReader {
public:
    virtual ~TableReader() = default;

    virtual std::uint32_t tableId() const = 0;
    /// Whether an opened file was replaced or is gone.
    virtual bool stale() const = 0;
    /// Lets go of all files.
    virtual void close() = 0;

    /// Looks a change up and carries it out.
    virtual Applied apply(Asic::LogVersion version) = 0;
    /// After `superseded`: the version of the later change, and programming its value already now;
    /// nothing when that change deletes the key.
    virtual std::optional<Asic::LogVersion> laterVersion() const = 0;
    virtual void programLater() = 0;

    /// The last version published; 0 when there is no change log. Throws KivShimo::CorruptionError,
    /// KivShimo::MountError.
    virtual Asic::LogVersion published() = 0;
    /// Programs every live value up to a version, of all units there are. Values that cannot be
    /// read are reported, and what is behind them is not held up. Throws KivShimo::BusyError, and
    /// KivShimo::MountError where the units cannot be listed; nothing may be removed then.
    virtual void programAll(Asic::LogVersion upTo) = 0;
    /// Removes what programAll() before did not find, but for units that it could not read whole.
    virtual void removeRest() = 0;

    /// Values, records and files found rotten so far.
    virtual std::uint64_t rotten() const = 0;
    /// The version that hardware was brought to; kept with the hardware.
    virtual Asic::LogVersion reached() const = 0;
    virtual void reachedIs(Asic::LogVersion version) = 0;
};

/// The group's tables, each after those that its entries may need.
std::vector<std::unique_ptr<TableReader>> tableReaders(const Group& group, Tcam& tcam);

}  // namespace HwSide
