// Puts bytes into an info file while a redirected file reads its records there, as another process
// may. The input chooses the file, its own segments, the foreign bytes and the reads.
#include <fcntl.h>
#include <fuzzer/FuzzedDataProvider.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "FuzzMain.h"
#include "RedirectedFile.h"
#include "RuntimeParam.h"
#include "Utilities.h"

namespace {

constexpr std::int64_t kSource = 4096;  // bytes of each source

// A folder with two sources, an empty info file and an empty target, for the whole run.
class Folder {
public:
    Folder() {
        std::string name = std::filesystem::temp_directory_path() / "fuzz-records-XXXXXX";
        if (mkdtemp(name.data()) == nullptr) {
            std::abort();
        }
        m_path = name;
        for (const char* file : {"a", "b"}) {
            std::ofstream(Path(file)) << std::string(kSource, file[0]);
        }
    }
    ~Folder() { std::filesystem::remove_all(m_path); }
    std::string Path(const char* name) const { return m_path + "/" + name; }

private:
    std::string m_path;
};

// Mostly near the content, sometimes anywhere.
std::int64_t Offset(FuzzedDataProvider& input) {
    return input.ConsumeBool() ? input.ConsumeIntegralInRange<std::int64_t>(0, 1 << 22)
                               : input.ConsumeIntegral<std::int64_t>();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const bool dropped = fuzz::DropOutput();
    static const Folder folder;
    static CUtilities utilities;
    static CRuntimeParam param("fuzz", 0);
    if (!dropped) {
        return 0;
    }
    FuzzedDataProvider input(data, size);
    const std::string info = folder.Path("info");
    const std::string target = folder.Path("target");
    std::ofstream(info, std::ios::trunc).flush();
    std::ofstream(target, std::ios::trunc).flush();

    CRedirectedFile file(&utilities);
    const auto length = input.ConsumeIntegralInRange<std::int64_t>(0, 3 << 20);
    file.Open(&param, length, 1, info.c_str(), 1, 1);
    char reason[STATUS_SIZE] = "";
    for (int left = input.ConsumeIntegralInRange(0, 6); left > 0; --left) {
        const std::string source = folder.Path(input.ConsumeBool() ? "a" : "b");
        const std::int64_t at = Offset(input);
        const std::int64_t begin = Offset(input);
        // Each MiB of a segment is a record of its own.
        const auto bytes = input.ConsumeIntegralInRange<std::int64_t>(-1, 8 << 20);
        file.AddSegment(&param, source.c_str(), at, begin, bytes, reason);
    }
    for (int left = input.ConsumeIntegralInRange(1, 4); left > 0; --left) {
        const int fd = open(info.c_str(), O_WRONLY | O_CLOEXEC);
        const auto at = input.ConsumeIntegralInRange<off_t>(0, 40 * SegmentRecord::SIZE);
        const auto foreign = input.ConsumeBytes<std::uint8_t>(
            input.ConsumeIntegralInRange<std::size_t>(0, 20 * SegmentRecord::SIZE));
        const bool written = fd != -1 && pwrite(fd, foreign.data(), foreign.size(), at) >= 0;
        close(fd);
        if (!written) {
            std::abort();
        }
        const auto seek = static_cast<std::uint64_t>(Offset(input));
        const auto count = input.ConsumeIntegralInRange<unsigned int>(0, 100'000);
        // Exactly so many bytes, so that one beside them is noticed.
        const std::unique_ptr<char[]> buffer(new char[count]);
        bool eof = false;
        const int read = file.Read(&param, seek, buffer.get(), count, &eof);
        if (read < -1 || read > static_cast<int>(count)) {
            __builtin_trap();
        }
    }
    switch (input.ConsumeIntegralInRange(0, 15)) {
        case 0:
            file.Export(&param, target.c_str());
            break;
        case 1:
            file.ExportInfo(&param, target.c_str(), input.ConsumeBool());
            break;
        default:
            break;
    }
    file.Close(&param);
    return 0;
}
