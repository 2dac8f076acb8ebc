// Files that have rotted give the right values, or reports; never other values, never a crash or an
// endless loop.
//
// What may be silent: rot in words that nothing depends on, as padding, links that are made again,
// a journal without a seal. VORN_TORTURE=full tries every bit and every length of every file.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <random>

#include <fmt/format.h>

#include "platform/kivshimo/Paths.h"
#include "platform/kivshimo/detail/MappedFile.h"
#include "tests/entrylog/Bindings.h"
#include "tests/rot/Specimen.h"

namespace Rot {
namespace {

namespace fs = std::filesystem;
using KivShimo::detail::Descriptor;
using KivShimo::detail::StaticHeader;

constexpr unsigned kDeadline_s = 60;  ///< for one damage
constexpr std::size_t kBatch = 256;   ///< damages that one child examines
constexpr std::size_t kMostFailures = 20;
constexpr int kNotRestored = 3;  ///< a child's status: its damages were not all taken back

/// One way to damage a file.
struct Damage {
    std::string name;
    std::string file;  ///< relative
    std::function<void(const std::string& path)> apply;
    bool isAbsence = false;  ///< readers take it for a file that is not there yet
    bool isOneBit = false;   ///< nothing may wait for a store that nobody has begun
};

void overwrite(const std::string& path, std::uint64_t offset, const void* bytes, std::size_t size) {
    const Descriptor file(open(path.c_str(), O_RDWR | O_CLOEXEC));
    if (pwrite(file.fd(), bytes, size, static_cast<off_t>(offset)) != static_cast<ssize_t>(size))
        throw std::runtime_error("cannot damage " + path);
}

void replace(const std::string& path, const std::string& content) {
    fs::resize_file(path, content.size());
    overwrite(path, 0, content.data(), content.size());
}

/// A word that a child tells its parent.
class SharedWord {
public:
    SharedWord()
        : word_(static_cast<std::uint64_t*>(mmap(nullptr, sizeof(std::uint64_t),
                                                 PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS,
                                                 -1, 0))) {}
    SharedWord(const SharedWord&) = delete;
    SharedWord& operator=(const SharedWord&) = delete;
    ~SharedWord() { munmap(word_, sizeof(std::uint64_t)); }

    std::uint64_t& operator*() const { return *word_; }

private:
    std::uint64_t* word_;
};

class RotTest : public testing::Test {
protected:
    using Damages = std::function<Damage(std::size_t number)>;

    RotTest() {
        TestSupport::withoutCoreFiles();
        readers_ = specimen_.asReaders();
        for (const auto& [name, content] : specimen_.image())
            readersOf_[name] = specimen_.asReaders(name);
        for (const bool isAcknowledged : {false, true}) {
            hardware_[isAcknowledged] = specimen_.asHardware(isAcknowledged);
            specimen_.restore();
        }
        for (const auto& [name, content] : specimen_.image()) {
            const std::string table = Specimen::tableOf(name);
            if (writers_.contains(table))
                continue;
            writers_[table] = specimen_.asWriter({}, table);
            specimen_.restore();
        }
    }

    std::vector<std::string> tables() const {
        std::vector<std::string> names;
        for (const auto& [name, content] : specimen_.image()) {
            if (name.ends_with(KivShimo::kTableSuffix))
                names.push_back(name);
        }
        return names;
    }
    const std::string& content(const std::string& file) const { return specimen_.image().at(file); }

    /// What is wrong with what is made of a damaged file, or empty.
    std::string examined(const Damage& damage, std::size_t number) const {
        const std::string path = specimen_.folder() + "/" + damage.file;
        const bool isOfHardware = damage.file.starts_with("hwside");
        damage.apply(path);
        std::string defect;
        const auto note = [&](const char* who, const Findings& found, const Findings& whole) {
            const std::string what = damage.isOneBit && found.isBusy
                                         ? "waits for what nobody stores"
                                         : defectOf(found, whole, path);
            if (!what.empty())
                defect += fmt::format("{}: {}: {}: {}\n", damage.file, damage.name, who, what);
        };
        if (!damage.isAbsence)
            note("reader", specimen_.asReaders(damage.file), readersOf_.at(damage.file));
        const std::string table = Specimen::tableOf(damage.file);
        note("writer", specimen_.asWriter({}, table), writers_.at(table));
        specimen_.restore(table);
        if (damage.isAbsence || damage.file.starts_with("resources"))
            return defect;
        const bool isAcknowledged = isOfHardware || number % 2 == 0;
        damage.apply(path);
        note("hardware side", specimen_.asHardware(isAcknowledged), hardware_[isAcknowledged]);
        specimen_.restore(table);
        return defect;
    }

    using Examination = std::function<std::string(std::size_t number)>;

    /// Examines numbers in children: a crash or a hang is a failure as others are.
    void examineAll(std::size_t count, const Examination& examination) {
        std::size_t failures = 0;
        for (std::size_t next = 0; next < count && failures < kMostFailures;) {
            const std::size_t end = std::min(next + kBatch, count);
            const std::string text = examineBatch(next, end, examination);
            if (!text.empty()) {
                ADD_FAILURE() << text;
                ++failures;
            }
        }
    }
    void examineAll(std::size_t count, const Damages& damages) {
        const auto start = std::chrono::steady_clock::now();
        examineAll(count, Examination([&](std::size_t number) {
                       return examined(damages(number), number);
                   }));
        const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
        fmt::print("{} damages examined in {:.1f} s\n", count, took.count());
    }

    Specimen specimen_;
    Findings readers_;
    std::map<std::string, Findings> readersOf_;  ///< by file
    Findings hardware_[2];  ///< from the first announcement; from what is acknowledged
    std::map<std::string, Findings> writers_;  ///< by the only table; under no name, of all

private:
    /// Examines from `next` on and moves it; stops behind a number that its child died of.
    std::string examineBatch(std::size_t& next, std::size_t end, const Examination& examination) {
        int ends[2];
        EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
        const Descriptor from(ends[0]);
        Descriptor to(ends[1]);
        const SharedWord progress;
        const pid_t child = fork();
        if (child == 0) {
            for (std::size_t number = next; number < end; ++number) {
                *progress = number;
                alarm(kDeadline_s);
                const std::string text = examination(number);
                if (write(to.fd(), text.data(), text.size()) < 0)
                    _exit(2);
            }
            _exit(specimen_.isWhole() ? 0 : kNotRestored);
        }
        to = Descriptor();
        std::string text;
        char buffer[4096];
        for (ssize_t got = 0; (got = read(from.fd(), buffer, sizeof(buffer))) > 0;)
            text.append(buffer, static_cast<std::size_t>(got));
        int status = 0;
        waitpid(child, &status, 0);
        next = end;
        if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
            next = *progress + 1;
            text += fmt::format("number {}: the child ended with status {}\n", *progress, status);
            specimen_.restore();
        }
        return text;
    }
};

TEST_F(RotTest, WholeFilesGiveEverythingWithoutAReport) {
    for (const Findings* whole : {&readers_, &hardware_[0], &hardware_[1], &writers_.at("")}) {
        EXPECT_TRUE(whole->reports.empty()) << whole->reports.front();
        EXPECT_GE(whole->values.size(), 4U);
    }
    for (const char* table :
         {"PolicyCpuTcamAction", "PolicyCpuV4TcamEntry", "PolicyCpuV6TcamEntry"}) {
        EXPECT_TRUE(readers_.values.contains(fmt::format("{} value 4", table))) << table;
        EXPECT_TRUE(readers_.values.contains(fmt::format("{} record 7", table))) << table;
    }
    for (const char* what : {"counter 1", "policer 1", "announcement 27", "consumed"})
        EXPECT_TRUE(readers_.values.contains(what)) << what;
    EXPECT_EQ(hardware_[0].values, hardware_[1].values);
    EXPECT_EQ(tables().size(), 10U);
}

Damage flipOf(const std::string& file, std::size_t bit) {
    return {fmt::format("byte {} bit {}", bit / 8, bit % 8), file,
            [bit](const std::string& path) {
                const Descriptor there(open(path.c_str(), O_RDWR | O_CLOEXEC));
                unsigned char byte = 0;
                if (pread(there.fd(), &byte, 1, static_cast<off_t>(bit / 8)) != 1)
                    throw std::runtime_error("cannot damage " + path);
                byte = static_cast<unsigned char>(byte ^ (1U << bit % 8));
                overwrite(path, bit / 8, &byte, 1);
            },
            false, true};
}

/// Whether the short run tries a bit: those of words that stand alone, and some of the rest, more
/// where something is stored.
bool isTriedInShort(std::size_t bit, const std::string& content) {
    using KivShimo::detail::DynamicHeader;
    constexpr std::size_t kDynamic = KivShimo::detail::kDynamicOffset;
    const std::size_t byte = bit / 8;
    if (content.size() < sizeof(StaticHeader))
        return bit % 19 == 0;
    if (byte < sizeof(StaticHeader))
        return bit % 61 == 0;
    const auto isIn = [&](std::size_t offset, std::size_t size) {
        return byte >= kDynamic + offset && byte < kDynamic + offset + size;
    };
    if (isIn(offsetof(DynamicHeader, scratchpad), 48) || isIn(offsetof(DynamicHeader, tail), 48) ||
        isIn(offsetof(DynamicHeader, pause), 48)) {
        return bit % 3 == 0;
    }
    if (isIn(offsetof(DynamicHeader, wiped), 8) || isIn(offsetof(DynamicHeader, structure), 8) ||
        isIn(offsetof(DynamicHeader, sleepEpoch), 8))
        return bit % 7 == 0;
    return bit % 997 == 0 || (content[byte] != 0 && bit % 37 == 0);
}

struct BitOf {
    const std::string* file;
    std::size_t bit;
};

/// The bits of the file of that number in the order of their names, or of all. Of the files of
/// several tables, which are alike, the short run tries different ones.
std::vector<BitOf> triedBits(const Image& image, std::size_t only = SIZE_MAX) {
    std::vector<BitOf> bits;
    std::size_t number = 0;
    for (const auto& [name, content] : image) {
        if (number++ != only && only != SIZE_MAX)
            continue;
        std::size_t known = 0;
        for (std::size_t bit = 0; bit < content.size() * 8; ++bit) {
            if (isLongRun() || (isTriedInShort(bit, content) && (number + ++known) % 3 == 0))
                bits.push_back({&name, bit});
        }
    }
    return bits;
}

/// The files by number, so that a long run can be shared out.
class RotOfFile : public RotTest, public testing::WithParamInterface<std::size_t> {};
constexpr std::size_t kFiles = 20;

TEST_P(RotOfFile, FlippedBitIsHarmlessOrReported) {
    ASSERT_EQ(specimen_.image().size(), kFiles);
    const std::vector<BitOf> bits = triedBits(specimen_.image(), GetParam());
    fmt::print("{}: {} bits\n", *bits.front().file, bits.size());
    examineAll(bits.size(),
               [&](std::size_t number) { return flipOf(*bits[number].file, bits[number].bit); });
}

INSTANTIATE_TEST_SUITE_P(All, RotOfFile, testing::Range(std::size_t{0}, kFiles));

TEST_F(RotTest, BitFlippedUnderARunningWriterIsHarmlessOrReported) {
    std::vector<BitOf> bits = triedBits(specimen_.image());
    std::erase_if(bits, [](const BitOf& of) {
        return of.file->starts_with("hwside") || of.file->ends_with(KivShimo::kManifestSuffix) ||
               of.bit % 5 != 0;
    });
    // The header's page was copied when it was checked.
    examineAll(bits.size(), Examination([&](std::size_t number) {
                   const Damage damage = flipOf(*bits[number].file, bits[number].bit);
                   const std::string path = specimen_.folder() + "/" + damage.file;
                   const Findings found = specimen_.asWriter([&] { damage.apply(path); });
                   specimen_.restore();
                   Findings whole = writers_.at("");
                   std::erase_if(whole.values, [](const auto& value) {
                       return value.first.starts_with("acknowledged") || value.first == "consumed";
                   });
                   const std::string defect = defectOf(found, whole, path);
                   return defect.empty() ? defect
                                         : damage.file + ": " + damage.name + ": " + defect + "\n";
               }));
}

TEST_F(RotTest, TruncatedFileIsReported) {
    std::vector<std::pair<std::string, std::size_t>> lengths;
    for (const auto& [name, content] : specimen_.image()) {
        const std::size_t size = content.size();
        for (std::size_t length = 0; length < size; ++length) {
            const std::size_t inPage = length % KivShimo::detail::kPageBytes;
            const bool isInteresting = inPage <= 1 || inPage == 4095 || length < 3 ||
                                       length == sizeof(StaticHeader) || length + 8 == size ||
                                       (size < 100 && length % 8 == 0);
            if (isLongRun() || isInteresting)
                lengths.emplace_back(name, length);
        }
    }
    examineAll(lengths.size(), [&](std::size_t number) {
        const auto& [name, length] = lengths[number];
        return Damage{
            fmt::format("{} bytes left", length), name,
            [length = length](const std::string& path) { fs::resize_file(path, length); }};
    });
}

constexpr std::size_t kPage = KivShimo::detail::kPageBytes;

/// What comes in place of a page: noise, zeros, or a page of some file.
std::string strangePage(std::mt19937_64& random, const std::vector<std::string>& contents,
                        bool isNoise) {
    std::string bytes(kPage, '\0');
    const unsigned kind = isNoise ? 0 : random() % 4;
    if (kind == 0) {
        for (char& byte : bytes)
            byte = static_cast<char>(random());
    } else if (kind != 1) {
        const std::string& other = contents[random() % contents.size()];
        bytes = other.substr(random() % (other.size() / kPage) * kPage, kPage);
    }
    return bytes;
}

/// Records and acknowledgements look reclaimed where one word is zero, as it often is in a page of
/// another file.
bool zerosLookReclaimed(const std::string& name, std::size_t page) {
    return page * kPage >= KivShimo::detail::kAreasOffset &&
           (name.find("entryLog") != std::string::npos || name.starts_with("hwside"));
}

TEST_F(RotTest, RandomPagesAreHarmlessOrReported) {
    const std::vector<std::string> names = tables();
    std::vector<std::string> contents;
    for (const std::string& name : names)
        contents.push_back(content(name));
    const std::size_t count = isLongRun() ? 20000 : 150;
    examineAll(count, [&](std::size_t number) {
        std::mt19937_64 random(number);
        const std::size_t which = random() % names.size();
        const std::size_t page = random() % (contents[which].size() / kPage);
        const std::string bytes =
            strangePage(random, contents, zerosLookReclaimed(names[which], page));
        return Damage{fmt::format("page {} of seed {}", page, number), names[which],
                      [page, bytes](const std::string& path) {
                          overwrite(path, page * kPage, bytes.data(), bytes.size());
                      }};
    });
}

/// The same file as another version of the layout, with a right checksum.
std::string ofOtherVersion(std::string content) {
    StaticHeader header;
    std::memcpy(&header, content.data(), sizeof(header));
    ++header.layoutVersion;
    KivShimo::detail::seal(header);
    std::memcpy(content.data(), &header, sizeof(header));
    return content;
}

TEST_F(RotTest, FileThatIsAnotherIsReported) {
    std::vector<Damage> damages;
    const auto add = [&](const std::string& name, const std::string& file,
                         const std::string& replacement) {
        damages.push_back(
            {name, file, [replacement](const std::string& path) { replace(path, replacement); }});
    };
    for (const std::string& name : tables()) {
        const std::string& whole = content(name);
        add("empty", name, "");
        add("zeroed", name, std::string(whole.size(), '\0'));
        add("one byte more", name, whole + '\0');
        add("one page more", name, whole + std::string(4096, '\0'));
        add("other version", name, ofOtherVersion(whole));
        for (const std::string& other : tables()) {
            if (other != name)
                add("it is " + other, name, content(other));
        }
    }
    examineAll(damages.size(), [&](std::size_t number) { return damages[number]; });
}

TEST_F(RotTest, WhatStandsInPlaceOfAFileIsRefused) {
    const TestSupport::TempDir elsewhere;
    std::vector<Damage> damages;
    std::map<std::string, std::string> copies;
    for (const auto& [name, whole] : specimen_.image()) {
        const std::string copy = elsewhere.file(std::to_string(copies.size()));
        std::ofstream(copy, std::ios::binary) << whole;
        copies[name] = copy;
        const auto add = [&, &of = name](const std::string& what,
                                         const std::function<void(const std::string&)>& make,
                                         bool isAbsence = false) {
            damages.push_back({what, of,
                               [make](const std::string& path) {
                                   fs::remove_all(path);
                                   make(path);
                               },
                               isAbsence});
        };
        add(
            "nothing", [](const std::string&) {}, true);
        add("folder", [](const std::string& path) { fs::create_directory(path); });
        add("pipe", [](const std::string& path) { mkfifo(path.c_str(), 0640); });
        add("link", [copy](const std::string& path) { fs::create_symlink(copy, path); });
        add("link to nothing",
            [](const std::string& path) { fs::create_symlink("/dev/shm/none/none", path); });
    }
    examineAll(damages.size(), [&](std::size_t number) { return damages[number]; });
    for (const auto& [name, copy] : copies) {
        std::ifstream stream(copy, std::ios::binary);
        const std::string now((std::istreambuf_iterator<char>(stream)), {});
        EXPECT_TRUE(now == content(name)) << "written through a link in place of " << name;
    }
}

}  // namespace
}  // namespace Rot
