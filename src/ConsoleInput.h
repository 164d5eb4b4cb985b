// Reads lines from standard input: a terminal, a pipe, or a file that somebody may still write.
#ifndef VELOCAST_CONSOLEINPUT_H
#define VELOCAST_CONSOLEINPUT_H

#include <functional>
#include <string>

// Nothing that was read stays behind in memory that is given back: it may hold a password.
//
// Thread safety: used by the main thread; RestoreTerminal also by a signal handler.
class CConsoleInput {
public:
    CConsoleInput();
    ~CConsoleInput() { Wipe(&m_sPending); }
    CConsoleInput(const CConsoleInput&) = delete;
    CConsoleInput& operator=(const CConsoleInput&) = delete;

    // Whether a character waits; it is kept for the next line.  False at the end of the input,
    // which may go on later, and in the background of a terminal.
    bool IsKeyboardHit();
    // One line without its newline, at most 4,095 bytes of it; waits for the rest of the line.
    // False when isEnd, which is asked every 100 ms, answers true first.
    bool ReadLine(const std::function<bool()>& isEnd, std::string* psLine);

    // Empties a text and leaves no copy of it behind.
    static void Wipe(std::string* psText);
    // Gives the terminal back the settings that IsKeyboardHit may just have changed.
    // Async-signal-safe.
    static void RestoreTerminal();

private:
    // Takes the next line off what was read; false when there is none yet.  With bEnd, all that was
    // read is a line, whether a newline ends it or not.
    bool TakeLine(bool bEnd, std::string* psLine);
    // Reads once; false when that gave nothing: *pbEnded then tells whether the input has ended or
    // failed.
    bool ReadMore(bool* pbEnded);

    std::string m_sPending;  // read, not yet part of a line
};

#endif
