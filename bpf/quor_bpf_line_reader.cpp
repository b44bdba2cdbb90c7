#include "bpf/quor_bpf_line_reader.h"

namespace Quor {
namespace Bpf {

bool QuorBpfLineReader::Open(const std::string& path) {
    Close();
    file_ = fopen(path.c_str(), "re");
    return file_ != nullptr;
}

bool QuorBpfLineReader::Next(std::string* line) {
    line->clear();
    if (file_ == nullptr) return false;
    int c = getc_unlocked(file_);
    if (c == EOF) return false;
    while (c != EOF && c != '\n') {
        if (line->size() < kMaxLine) line->push_back(static_cast<char>(c));
        c = getc_unlocked(file_);
    }
    return true;
}

void QuorBpfLineReader::Close() {
    if (file_ != nullptr) {
        (void)fclose(file_);
        file_ = nullptr;
    }
}

}  // namespace Bpf
}  // namespace Quor
