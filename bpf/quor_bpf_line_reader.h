// QuorBpfLineReader: reads a procfs text file line by line, with a bound on
// how much of one line is kept.
//
// The kernel writes procfs, but the service still treats those bytes as
// untrusted: a line may be of any length and may hold NUL bytes, and the last
// line may lack its '\n'. Next() hands out each line without its '\n', NUL
// bytes included. Of a line longer than kMaxLine only the first kMaxLine bytes
// are kept; the rest of that line is skipped and does not become a line of its
// own. kMaxLine is well above any procfs line the service reads (a maps line
// holds at most a 4096-byte path after ~75 bytes of fields).
//
//   QuorBpfLineReader reader;
//   if (!reader.Open(path)) return;   // errno says why
//   std::string line;
//   while (reader.Next(&line)) { ... }
//
// The file is opened close-on-exec and closed by Close() or the destructor.
// A reader belongs to one thread.
#pragma once

#include <cstdio>
#include <string>

namespace Quor {
namespace Bpf {

class QuorBpfLineReader {
public:
    static constexpr size_t kMaxLine = 8192;

    QuorBpfLineReader() = default;
    ~QuorBpfLineReader() { Close(); }
    QuorBpfLineReader(const QuorBpfLineReader&) = delete;
    QuorBpfLineReader& operator=(const QuorBpfLineReader&) = delete;

    // Opens `path` for reading, closing any file opened before. False (errno
    // set) when it cannot be opened.
    bool Open(const std::string& path);
    // The next line into `line`; false at end of file, on a read error or when
    // nothing is open.
    bool Next(std::string* line);
    void Close();

private:
    FILE* file_ = nullptr;
};

}  // namespace Bpf
}  // namespace Quor
