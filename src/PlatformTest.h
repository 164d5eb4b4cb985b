// Tests what the server needs of a file system, and reports each step as an info line.
#ifndef VELOCAST_PLATFORMTEST_H
#define VELOCAST_PLATFORMTEST_H

#include <cstdarg>

#include "RuntimeParam.h"
#include "Utilities.h"

// Thread safety: none; one object runs one test.
class CPlatformTest {
public:
    // All are borrowed; pRuntimeParam says to whom the lines go.
    CPlatformTest(CUtilities* pUtilities, CRuntimeParam* pRuntimeParam);
    CPlatformTest(const CPlatformTest&) = delete;
    CPlatformTest& operator=(const CPlatformTest&) = delete;

    // Tests the file system of a directory, which may be null, with a file of iFileSize bytes.
    // Everything is done in a folder made for it, of which nothing is left.  A step that fails ends
    // nothing: those that depend on it tell so.
    void Run(const char* pcDirPath, long long iFileSize);

private:
    // One step after the other: what is done, and how it ended.
    class Step {
    public:
        Step(CUtilities* pUtilities, CRuntimeParam* pRuntimeParam)
            : m_pUtilities(pUtilities), m_pRuntimeParam(pRuntimeParam) {}

        // Begins a step, with what it does.
        Step& Run(const char* pcFmt, ...) VELOCAST_PRINTF(2, 3);
        // What the step must have to begin; without it, the line tells what is missing.
        Step& After(bool bReady, const char* pcFmt, ...) VELOCAST_PRINTF(3, 4);
        // Does the deed, which returns whether it worked, and reports how it ended: by the line of
        // After or Expect, else by the reason in Status.  Returns the same.
        template <typename Deed>
        bool Do(Deed deed) {
            const bool bOk = !m_bTold && deed();
            if (!m_bTold) {
                Tell(bOk);
            }
            return bOk;
        }

        // For the deed: the buffer for the reason of the operation that is tested.
        char* Status() { return m_cStatus; }
        // For the deed: returns bOk; without it, the line tells how the step failed.
        bool Expect(bool bOk, const char* pcFmt, ...) VELOCAST_PRINTF(3, 4);
        // What the step does, for those lines.
        const char* Text() const { return m_cText; }

    private:
        void Tell(bool bOk);
        void TellFailure(const char* pcFmt, va_list vaArgs) VELOCAST_PRINTF(2, 0);

        CUtilities* m_pUtilities;
        CRuntimeParam* m_pRuntimeParam;
        char m_cText[STATUS_SIZE] = "";
        char m_cStatus[STATUS_SIZE] = "";
        bool m_bTold = false;  // the line of this step has been logged
    };

    void ReportFileSystem(const char* pcDir);
    void RunTestFiles(const char* pcTestDir, const char* pcTestFile, const char* pcSecondFile,
                      long long iFileSize);
    // Sets a size and looks at it; the prefix begins what the step says of itself.
    void RunTestUpdateFileSize(const char* pcFile, long long iFileSize, const char* pcPrefix);
    // Writes and reads back a block at a place, both moved and cut to lie inside the file.
    void RunTestReadWriteFile(int iFile, long long iPos, long long iFileSize);
    void RunTestUpdateFileAttribute(const char* pcFile, unsigned int iMode);

    CUtilities* m_pUtilities;
    CRuntimeParam* m_pRuntimeParam;
    LogArgu m_LogArgu{"Utilities.RunTestMode"};
};

#endif
