// Reading kernel nodes (procfs, sysfs). Every meter opens its nodes here, so every path goes
// through the path seam and every kept-open node is rewound the same way. Two flavours, for the
// two kinds of reader the meters have:
//  - NodeFile, a C stdio stream read in fgets-sized pieces (the status-file parsers take FILE*);
//  - an std::ifstream read a line at a time with getline (the sysfs readers).
// A kept-open node is rewound after each reading so that the next reading sees the node's
// current content: the kernel builds the text afresh when a reading starts at offset 0.
#pragma once

#include <cstdio>
#include <fstream>
#include <string>

namespace meters {

// A node open for reading through C stdio; closed on destruction.
//
// Its rule: a reading fails (null) at the end of the text, on a read error (the node's process
// is gone) and once the node is closed; a rewind starts every reading afresh. A rewind that
// cannot seek closes the node, so that its later readings fail like those of a missing file.
class NodeFile {
  public:
    // Opens path (an absolute path goes through the path seam); isOpen() says whether it did.
    explicit NodeFile(const std::string& path);
    ~NodeFile();
    NodeFile(const NodeFile&) = delete;
    NodeFile& operator=(const NodeFile&) = delete;

    bool isOpen() const { return mFile != nullptr; }
    // The stream, for parsers that take a FILE*; null once closed.
    FILE* get() const { return mFile; }
    // fgets: at most size - 1 bytes, up to and including a '\n'; null when nothing was read.
    char* readLine(char* buf, int size);
    // Back to offset 0 with stdio's buffer dropped. False (and closed) when that fails.
    bool rewind();
    void close();

  private:
    FILE* mFile = nullptr;
};

// The line flavour, on the meters' own std::ifstream members.
//
// Its rule is std::ifstream's, and the meters rely on it: a reading that finds the end of the
// text leaves the stream failed, and a failed stream neither reads nor rewinds until it is
// closed and opened again. A node that once reads empty therefore stays empty until then.

// Opens path for reading (an absolute path goes through the path seam); true when open.
bool openNode(std::ifstream& stream, const std::string& path);
// One line, up to '\n' (not kept); true when the line is not empty.
bool readNodeLine(std::ifstream& stream, std::string& line);
// Back to offset 0, dropping what the stream has buffered; false on a failed stream.
bool rewindNode(std::ifstream& stream);

// Writes value as decimal text, no newline, to a node opened afresh (truncating); false when
// the node cannot be opened. Write failures after that are not reported, as for any sysfs store.
bool writeNode(const std::string& path, int value);

// A raw read-only descriptor, for a meter that opens and closes per reading and keeps the number.
int openNodeFd(const std::string& path);

}  // namespace meters
