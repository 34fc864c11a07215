#include "FileBytes.h"

#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace {

bool take_state(const struct stat& info, FileState& state) {
    state.device = info.st_dev;
    state.inode = info.st_ino;
    state.size = static_cast<uint64_t>(info.st_size);
    state.changed_sec = info.st_mtim.tv_sec;
    state.changed_ns = info.st_mtim.tv_nsec;
    return S_ISREG(info.st_mode);
}

}  // namespace

bool ReadFile(const std::string& path, std::vector<unsigned char>& bytes, std::string& error) {
    std::error_code code;
    const bool is_folder = std::filesystem::is_directory(path, code);
    errno = 0;
    std::ifstream file(path, std::ios::binary);
    if (is_folder || !file) {
        error = path + ": cannot be read: " + (is_folder ? "it is a folder" : std::strerror(errno));
        return false;
    }
    bytes.assign(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
    if (bytes.empty()) {
        error = path + ": is empty";
    }
    return !bytes.empty();
}

bool HasEnding(const std::string& path, const char* ending) {
    const size_t length = std::strlen(ending);
    return path.size() >= length && strcasecmp(path.c_str() + path.size() - length, ending) == 0;
}

size_t MemoryBytes::ReadAt(uint64_t offset, unsigned char* to, size_t size) const {
    const size_t count = offset < m_size ? std::min<size_t>(size, m_size - offset) : 0;
    std::memcpy(to, m_data + (count > 0 ? offset : 0), count);
    return count;
}

bool FileState::operator==(const FileState& other) const {
    return IsSameFile(other) && size == other.size && changed_sec == other.changed_sec &&
           changed_ns == other.changed_ns;
}

bool ReadFileState(const std::string& path, FileState& state) {
    struct stat info = {};
    return stat(path.c_str(), &info) == 0 && take_state(info, state);
}

FileBytes::~FileBytes() {
    if (m_fd >= 0) {
        close(m_fd);
    }
}

// A named pipe in the file's place doesn't keep the opener waiting.
bool FileBytes::Open(const std::string& path) {
    m_fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    struct stat info = {};
    return m_fd >= 0 && fstat(m_fd, &info) == 0 && take_state(info, m_state);
}

size_t FileBytes::ReadAt(uint64_t offset, unsigned char* to, size_t size) const {
    size_t count = 0;
    while (count < size && offset + count < m_state.size) {
        const size_t wanted = std::min<uint64_t>(size - count, m_state.size - offset - count);
        const ssize_t got = pread(m_fd, to + count, wanted, static_cast<off_t>(offset + count));
        if (got <= 0) {
            break;
        }
        count += static_cast<size_t>(got);
    }
    return count;
}
