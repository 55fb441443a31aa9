#include "NodeStream.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <new>

#include "seams.h"

namespace meters {

namespace {

// The stream reads the node with pread at an offset of its own: a rewind only moves that offset,
// and each reading costs one pread of the text the kernel builds afresh at offset 0. A kernel
// node hands over all the text it has in one read, so a short read ends the reading: stdio's
// next request is answered without asking the kernel again.
struct Cursor {
    int fd;
    off64_t offset;
    bool ended;
};

ssize_t cursorRead(void* cookie, char* buf, size_t size) {
    auto* cursor = static_cast<Cursor*>(cookie);
    if (cursor->ended)
        return 0;
    ssize_t n = pread(cursor->fd, buf, size, cursor->offset);
    if (n > 0)
        cursor->offset += n;
    cursor->ended = n >= 0 && static_cast<size_t>(n) < size;
    return n;
}

int cursorSeek(void* cookie, off64_t* offset, int whence) {
    auto* cursor = static_cast<Cursor*>(cookie);
    // A node's text has no known end, so only moves from the start or the cursor make sense.
    off64_t base = whence == SEEK_SET ? 0 : whence == SEEK_CUR ? cursor->offset : -1;
    if (base < 0 || base + *offset < 0) {
        errno = EINVAL;
        return -1;
    }
    cursor->offset = *offset = base + *offset;
    cursor->ended = false;
    return 0;
}

int cursorClose(void* cookie) {
    auto* cursor = static_cast<Cursor*>(cookie);
    int result = ::close(cursor->fd);
    delete cursor;
    return result;
}

}  // namespace

NodeFile::NodeFile(const std::string& path) {
    int fd = ::open(seams::resolvePath(path).c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return;
    auto* cursor = new (std::nothrow) Cursor{fd, 0, false};
    if (cursor != nullptr)
        mFile = fopencookie(cursor, "r", {cursorRead, nullptr, cursorSeek, cursorClose});
    if (mFile == nullptr) {
        ::close(fd);
        delete cursor;
    }
}

NodeFile::~NodeFile() {
    close();
}

char* NodeFile::readLine(char* buf, int size) {
    return mFile != nullptr ? fgets(buf, size, mFile) : nullptr;
}

bool NodeFile::rewind() {
    if (mFile == nullptr)
        return false;
    // A seek on a cookie stream always empties stdio's buffer (no C library serves it from the
    // old text), and the cursor makes it free: the next reading preads the kernel's text anew.
    clearerr(mFile);
    if (fseek(mFile, 0, SEEK_SET) != 0) {
        close();
        return false;
    }
    return true;
}

void NodeFile::close() {
    if (mFile != nullptr)
        (void)fclose(mFile);  // read-only: nothing is lost when the close fails
    mFile = nullptr;
}

bool openNode(std::ifstream& stream, const std::string& path) {
    stream.open(seams::resolvePath(path));
    return stream.is_open();
}

bool readNodeLine(std::ifstream& stream, std::string& line) {
    line.clear();  // getline leaves the string alone on a failed stream
    std::getline(stream, line);
    return !line.empty();
}

bool rewindNode(std::ifstream& stream) {
    // seekg clears the end-of-file state but, as the rule above says, not the fail state.
    stream.seekg(0);
    return !stream.fail();
}

bool writeNode(const std::string& path, int value) {
    std::ofstream out(seams::resolvePath(path), std::ios::out | std::ios::trunc);
    if (!out.is_open())
        return false;
    out << value;
    return true;
}

int openNodeFd(const std::string& path) {
    return ::open(seams::resolvePath(path).c_str(), O_RDONLY | O_CLOEXEC);
}

}  // namespace meters
