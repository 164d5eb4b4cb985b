// Feeds arguments and typed lines to the console. The first byte chooses: 0 the arguments, one a
// line, 1 the lines of the command loop, whose operations do nothing.
#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "ConsoleUtilities.h"
#include "FuzzMain.h"

namespace {

// Makes the text all there is on standard input.
void Type(const std::string& text) {
    static const int input = memfd_create("input", 0);
    static const bool taken = input != -1 && dup2(input, STDIN_FILENO) == STDIN_FILENO;
    if (!taken || ftruncate(input, 0) != 0 ||
        pwrite(input, text.data(), text.size(), 0) != static_cast<ssize_t>(text.size()) ||
        lseek(input, 0, SEEK_SET) != 0) {
        std::abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const bool dropped = fuzz::DropOutput();
    static fuzz::FuzzMain main;
    if (!dropped || size == 0) {
        return 0;
    }
    const std::string text(reinterpret_cast<const char*>(data + 1), size - 1);
    CConsoleUtilities console;
    if (data[0] % 2 == 0) {
        // The help ends the program before it starts anything: behind an option that lacks a value,
        // the first is that value. A NUL would hide both.
        const std::string arguments = text.substr(0, text.find('\0'));
        console.Run("fuzz", (arguments + "\n-help\n-help\n").c_str());
    } else {
        main.SetResult((data[0] & 2) == 0);
        Type(text + "\nquit\n");
        console.ProcessCommand(&main, nullptr);
    }
    return 0;
}
