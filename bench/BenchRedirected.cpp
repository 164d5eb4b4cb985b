// What redirected files cost. Every figure is held against something measured in the same run, so
// that the speed of the machine drops out; rounds of both alternate, and the best of each counts.
//
//     bench_redirected FAST_FOLDER DISK_FOLDER [RAW_FILE [PART...]]
//
// FAST_FOLDER lies in memory (tmpfs), DISK_FOLDER on a disk with room for three times the exported
// file. The table goes to standard output, every single round to RAW_FILE. The parts are memory,
// info, sequential and export; all of them unless some are named.

#include <fcntl.h>
#include <malloc.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <numeric>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "RuntimeParam.h"
#include "Utilities.h"

namespace {

constexpr long long kKiB = 1 << 10;
constexpr long long kMiB = 1 << 20;
constexpr long long kGiB = 1 << 30;
constexpr long long kTiB = 1LL << 40;
constexpr long long kMillion = 1'000'000;
constexpr long long kBlock = 32 * kMiB;  // the default block of an info file

constexpr int kRounds = 9;
constexpr int kReads = 20'000;  // of a round
constexpr long long kSourceSize = 64 * kMiB;

std::FILE* g_raw = nullptr;

void Check(bool ok, const std::string& what) {
    if (!ok) {
        throw std::runtime_error(what);
    }
}

double Seconds(const std::function<void()>& work) {
    const auto begin = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

// The better rounds of two kinds of work that alternate.
struct Pair {
    double subject = 1e9;
    double limit = 1e9;
    double Ratio() const { return subject / limit; }
};

Pair Compare(const std::string& name, int rounds, const std::function<void()>& subject,
             const std::function<void()>& limit) {
    Pair best;
    for (int i = 0; i < rounds; ++i) {
        const double l = Seconds(limit);
        const double s = Seconds(subject);
        std::fprintf(g_raw, "%s round %d: subject %.6f s, limit %.6f s\n", name.c_str(), i, s, l);
        best.subject = std::min(best.subject, s);
        best.limit = std::min(best.limit, l);
    }
    return best;
}

// One line of the table.  atLeast: the value must not be below the bound; else not above it.
void Row(const std::string& name, const std::string& detail, double value, double bound,
         bool atLeast) {
    const bool ok = atLeast ? value >= bound : value <= bound;
    std::printf("| %-52s | %-34s | %10.2f | %s %-8.6g | %-4s |\n", name.c_str(), detail.c_str(),
                value, atLeast ? ">=" : "<=", bound, ok ? "yes" : "NO");
    std::fflush(stdout);
}

std::string Micros(double seconds, int count) {
    char text[32];
    std::snprintf(text, sizeof text, "%.2f us", seconds * 1e6 / count);
    return text;
}

std::size_t AllocatedBytes() {
    const struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
}

std::size_t ResidentBytes() {
    std::size_t pages = 0;
    if (std::FILE* file = std::fopen("/proc/self/statm", "r")) {
        std::size_t all = 0;
        if (std::fscanf(file, "%zu %zu", &all, &pages) != 2) {
            pages = 0;
        }
        std::fclose(file);
    }
    return pages * static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
}

class Bench {
public:
    Bench(std::string fast, std::string disk) : m_fast(std::move(fast)), m_disk(std::move(disk)) {
        char reason[STATUS_SIZE] = "";
        Check(m_utilities.AddMountInfo(&m_param, &m_argu, m_fast.c_str(), "fast", "", reason) &&
                  m_utilities.AddMountInfo(&m_param, &m_argu, m_disk.c_str(), "disk", "", reason),
              reason);
        m_source = m_fast + "/source";
        WriteData(m_source, kSourceSize);
    }
    ~Bench() {
        m_utilities.Reset(&m_param, &m_argu);
        for (const char* name : {"/source", "/plain", "/one", "/blocks", "/pieces", "/million"}) {
            std::filesystem::remove(m_fast + name);
        }
        for (const char* name : {"/source", "/copy", "/export"}) {
            std::filesystem::remove(m_disk + name);
        }
    }
    Bench(const Bench&) = delete;
    Bench& operator=(const Bench&) = delete;

    void InMemory();
    void InAnInfoFile();
    void Sequential();
    void Export();

private:
    static void WriteData(const std::string& path, long long size) {
        std::FILE* file = std::fopen(path.c_str(), "w");
        Check(file != nullptr, "cannot make " + path);
        std::mt19937_64 random(1);
        std::vector<std::uint64_t> block(kMiB / 8);
        for (long long done = 0; done < size; done += kMiB) {
            std::generate(block.begin(), block.end(), random);
            Check(std::fwrite(block.data(), 1, kMiB, file) == kMiB, "cannot fill " + path);
        }
        Check(std::fclose(file) == 0, "cannot fill " + path);
    }

    std::string Open(const char* name, long long size, bool infoFile) {
        const std::string path = m_fast + name;
        if (infoFile) {
            std::fclose(std::fopen(path.c_str(), "w"));
        }
        m_utilities.OpenRedirectedFile(&m_param, path.c_str(), size, infoFile, 0, 0);
        return path;
    }
    void Add(const std::string& path, long long offset, long long length) {
        const long long room = kSourceSize - length;
        const long long from = room > 0 ? offset * 7 / kKiB * kKiB % room : 0;
        Check(m_utilities.AddRedirectedFileSegment(&m_param, path.c_str(), m_source.c_str(), from,
                                                   offset, length, nullptr),
              "segment refused");
    }
    void Read(const std::string& path, long long offset, unsigned int length) {
        bool eof = false;
        Check(m_utilities.ReadFile(&m_param, &m_argu, path.c_str(),
                                   static_cast<unsigned long long>(offset), SEEK_SET,
                                   m_buffer.data(), length, &eof) >= 0,
              "read failed");
    }
    // A round of random reads; `place` gives the offset of each.
    std::function<void()> Reads(const std::string& path, unsigned int length,
                                const std::function<long long()>& place) {
        return [=, this] {
            for (int i = 0; i < kReads; ++i) {
                Read(path, place(), length);
            }
        };
    }
    std::function<long long()> Anywhere(long long size, long long step = 1) {
        return [=, this] { return Below(size / step) * step; };
    }
    std::function<long long()> At(const std::vector<long long>& places) {
        return [&, this] {
            return places[static_cast<std::size_t>(Below(static_cast<long long>(places.size())))];
        };
    }
    long long Below(long long limit) {
        return static_cast<long long>(m_random() % static_cast<std::uint64_t>(limit));
    }
    std::vector<long long> Order(long long count, bool shuffled) {
        std::vector<long long> order(static_cast<std::size_t>(count));
        std::iota(order.begin(), order.end(), 0);
        if (shuffled) {
            std::shuffle(order.begin(), order.end(), m_random);
        }
        return order;
    }

    const std::string m_fast;
    const std::string m_disk;
    std::string m_source;
    CUtilities m_utilities;
    CRuntimeParam m_param{"bench", 0};
    LogArgu m_argu{"Bench"};
    std::mt19937_64 m_random{20};
    std::vector<char> m_buffer = std::vector<char>(64 * kKiB);
};

void Bench::InMemory() {
    const std::string one = Open("/one", kSourceSize - 64 * kKiB, false);
    Add(one, 0, kSourceSize - 64 * kKiB);

    // Full doubling of a vector lies just behind a power of two.
    for (const long long count : {kMillion, (1LL << 20) + 1}) {
        for (const bool shuffled : {false, true}) {
            const std::string orderName = shuffled ? "random order" : "ascending order";
            double best = 1e9;
            double bytes = 0;
            double resident = 0;
            const int rounds = count == kMillion ? 3 : 1;
            for (int round = 0; round < rounds; ++round) {
                const std::vector<long long> order = Order(count, shuffled);
                malloc_trim(0);
                const std::size_t allocated = AllocatedBytes();
                const std::size_t residentBefore = ResidentBytes();
                const std::string many = Open("/many", count * 64 * kKiB, false);
                const double seconds = Seconds([&] {
                    for (const long long i : order) {
                        Add(many, i * 64 * kKiB, 64 * kKiB);
                    }
                });
                best = std::min(best, seconds);
                bytes =
                    static_cast<double>(AllocatedBytes() - allocated) / static_cast<double>(count);
                resident = static_cast<double>(ResidentBytes() - residentBefore) /
                           static_cast<double>(count);
                std::fprintf(g_raw,
                             "add %lld in memory, %s, round %d: %.3f s, %.1f bytes allocated and "
                             "%.1f resident for each\n",
                             count, orderName.c_str(), round, seconds, bytes, resident);
                if (round + 1 < rounds) {
                    m_utilities.CloseRedirectedFile(&m_param, many.c_str());
                }
            }
            const std::string number = std::to_string(count);
            if (count == kMillion) {
                Row("add in memory, " + orderName, "segments a second",
                    static_cast<double>(count) / best, 500'000, true);
            }
            Row("memory, " + number + " segments, " + orderName, "bytes a segment, allocated",
                bytes, 120, false);
            Row("memory, " + number + " segments, " + orderName, "bytes a segment, resident",
                resident, 120, false);
            const std::string many = m_fast + "/many";
            if (count == kMillion) {
                const Pair pair =
                    Compare("4 KiB read, " + number + " segments, " + orderName, kRounds,
                            Reads(many, 4 * kKiB, Anywhere(count * 64 * kKiB - 4 * kKiB, 4 * kKiB)),
                            Reads(one, 4 * kKiB, Anywhere(kSourceSize - 128 * kKiB, 4 * kKiB)));
                Row("random 4 KiB read, a million against 1, " + orderName,
                    Micros(pair.subject, kReads) + " to " + Micros(pair.limit, kReads),
                    pair.Ratio(), 1.3, false);
            }
            m_utilities.CloseRedirectedFile(&m_param, many.c_str());
        }
    }
    m_utilities.CloseRedirectedFile(&m_param, one.c_str());
}

void Bench::InAnInfoFile() {
    const auto placeOf = [](long long block) { return block * kBlock; };
    constexpr long long kBlocks = kTiB / kBlock;

    const std::string blocks = Open("/blocks", kTiB, true);
    const std::string inMemory = Open("/memory", kTiB, false);
    for (long long block = 0; block < kBlocks; ++block) {
        Add(blocks, placeOf(block), kBlock);
        Add(inMemory, placeOf(block), kBlock);
    }
    const std::string pieces = Open("/pieces", kTiB, true);
    std::vector<long long> piecePlaces;
    for (long long block = 0; block < kBlocks; ++block) {
        const long long place = placeOf(block) + Below(kBlock - 4 * kKiB);
        Add(pieces, place, 4 * kKiB);
        piecePlaces.push_back(place);
    }
    double best = 1e9;
    std::vector<long long> millionPlaces;
    std::string million;
    for (int round = 0; round < 3; ++round) {
        millionPlaces.clear();
        for (long long i = 0; i < kMillion; ++i) {
            millionPlaces.push_back(Below(kTiB - 4 * kKiB));
        }
        std::sort(millionPlaces.begin(), millionPlaces.end());
        million = Open("/million", kTiB, true);
        const double seconds = Seconds([&] {
            for (const long long place : millionPlaces) {
                Add(million, place, 4 * kKiB);
            }
        });
        std::fprintf(g_raw, "add a million to an info file, round %d: %.3f s\n", round, seconds);
        best = std::min(best, seconds);
    }
    Row("add to an info file", "segments a second", static_cast<double>(kMillion) / best, 200'000,
        true);

    const auto limit = Reads(blocks, 64 * kKiB, Anywhere(kTiB - 64 * kKiB));
    const auto compare = [&](const std::string& name, const std::string& path,
                             const std::function<long long()>& place) {
        const Pair pair = Compare(name, kRounds, Reads(path, 64 * kKiB, place), limit);
        Row(name, Micros(pair.subject, kReads) + " to " + Micros(pair.limit, kReads), pair.Ratio(),
            3, false);
    };
    compare("64 KiB, a 4 KiB piece a block, anywhere", pieces, Anywhere(kTiB - 64 * kKiB));
    compare("64 KiB, a 4 KiB piece a block, at pieces", pieces, At(piecePlaces));
    compare("64 KiB, a million pieces, anywhere", million, Anywhere(kTiB - 64 * kKiB));
    compare("64 KiB, a million pieces, at pieces", million, At(millionPlaces));
    const Pair pair = Compare("64 KiB, one record a block against memory", kRounds, limit,
                              Reads(inMemory, 64 * kKiB, Anywhere(kTiB - 64 * kKiB)));
    Row("64 KiB, one record a block, against memory",
        Micros(pair.subject, kReads) + " to " + Micros(pair.limit, kReads), pair.Ratio(), 2, false);
    m_utilities.CloseAllRedirectedFiles(&m_param);
}

void Bench::Sequential() {
    const std::string plain = m_fast + "/plain";
    const std::string redirected = Open("/one", kGiB + 1, false);
    WriteData(plain, kGiB);
    Check(m_utilities.AddRedirectedFileSegment(&m_param, redirected.c_str(), plain.c_str(), 0, 0,
                                               kGiB, nullptr),
          "segment refused");
    const auto readAll = [&](const std::string& path) {
        return [this, path] {
            for (long long offset = 0; offset < kGiB; offset += 64 * kKiB) {
                Read(path, offset, 64 * kKiB);
            }
        };
    };
    const Pair pair = Compare("sequential 64 KiB", kRounds, readAll(redirected), readAll(plain));
    constexpr int kCount = static_cast<int>(kGiB / (64 * kKiB));
    Row("sequential 64 KiB through one segment against plain",
        Micros(pair.subject, kCount) + " to " + Micros(pair.limit, kCount), pair.Ratio(), 1.15,
        false);
    m_utilities.CloseRedirectedFile(&m_param, redirected.c_str());
}

void Bench::Export() {
    const std::string source = m_disk + "/source";
    const std::string copy = m_disk + "/copy";
    const std::string target = m_disk + "/export";
    const long long room =
        static_cast<long long>(std::filesystem::space(m_disk).available) / 4 / kMiB * kMiB;
    const long long size = std::min(4 * kGiB, room);
    WriteData(source, size);
    const std::string redirected = Open("/one", size, false);
    Check(m_utilities.AddRedirectedFileSegment(&m_param, redirected.c_str(), source.c_str(), 0, 0,
                                               size, nullptr),
          "segment refused");
    // Each run begins with a missing target, clean caches for writing, and free memory that is
    // backed: a virtual machine may have given freed pages back to its host, and getting them again
    // takes longer than copying into them.
    const auto fresh = [&] {
        std::filesystem::remove(copy);
        std::filesystem::remove(target);
        sync();
        const std::size_t bytes = static_cast<std::size_t>(size + size / 4);
        const std::unique_ptr<char[]> memory(new char[bytes]);
        for (std::size_t i = 0; i < bytes; i += 4 * kKiB) {
            static_cast<volatile char*>(memory.get())[i] = 1;
        }
    };
    const auto runCp = [&] {
        fresh();
        return Seconds(
            [&] { Check(std::system(("cp " + source + " " + copy).c_str()) == 0, "cp failed"); });
    };
    const auto runExport = [&] {
        fresh();
        std::fclose(std::fopen(target.c_str(), "w"));
        const double seconds = Seconds([&] {
            m_utilities.ExportRedirectedFile(&m_param, redirected.c_str(), target.c_str());
        });
        Check(static_cast<long long>(std::filesystem::file_size(target)) == size,
              "export is not whole");
        return seconds;
    };
    Pair best;
    for (int round = 0; round < 8; ++round) {
        // The disk may still be busy with what the other one wrote, so each goes first in turn.
        const bool exportFirst = round % 2 != 0;
        const double early = exportFirst ? runExport() : runCp();
        const double late = exportFirst ? runCp() : runExport();
        const double cp = exportFirst ? late : early;
        const double exported = exportFirst ? early : late;
        std::fprintf(g_raw, "export of %lld MiB, round %d: %.3f s, cp %.3f s\n", size / kMiB, round,
                     exported, cp);
        best.subject = std::min(best.subject, exported);
        best.limit = std::min(best.limit, cp);
    }
    char detail[64];
    std::snprintf(detail, sizeof detail, "%lld MiB: %.2f s to %.2f s", size / kMiB, best.subject,
                  best.limit);
    Row("Export, speed against cp", detail, best.limit / best.subject, 0.7, true);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        std::fprintf(stderr, "usage: %s FAST_FOLDER DISK_FOLDER [RAW_FILE [PART...]]\n", argv[0]);
        return 2;
    }
    g_raw = std::fopen(argc > 3 ? argv[3] : "/dev/null", "w");
    if (g_raw == nullptr) {
        std::fprintf(stderr, "cannot write %s\n", argv[3]);
        return 2;
    }
    try {
        std::printf("| %-52s | %-34s | %-10s | %-11s | %-4s |\n", "what", "measured", "value",
                    "bound", "met");
        std::printf("|---|---|---|---|---|\n");
        Bench bench(argv[1], argv[2]);
        const std::vector<std::string> parts(argv + std::min(argc, 4), argv + argc);
        const auto run = [&](const char* part, void (Bench::*work)()) {
            if (parts.empty() || std::find(parts.begin(), parts.end(), part) != parts.end()) {
                (bench.*work)();
            }
        };
        run("memory", &Bench::InMemory);
        run("info", &Bench::InAnInfoFile);
        run("sequential", &Bench::Sequential);
        run("export", &Bench::Export);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "%s\n", e.what());
        return 1;
    }
    std::fclose(g_raw);
    return 0;
}
