#ifndef VIDORA_HOST_FILEBYTES_H
#define VIDORA_HOST_FILEBYTES_H

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

// Reads a whole file. False, with `error` saying why, if it can't be read or is empty.
bool ReadFile(const std::string& path, std::vector<unsigned char>& bytes, std::string& error);
// Does `path` end in `ending`, in any case?
bool HasEnding(const std::string& path, const char* ending);

// IBytes: bytes at offsets, wherever they are kept.
class IBytes {
public:
    virtual ~IBytes() = default;
    virtual uint64_t Size() const = 0;
    // Reads up to `size` bytes at `offset` and gives how many there were, 0 behind the end.
    virtual size_t ReadAt(uint64_t offset, unsigned char* to, size_t size) const = 0;
};

// Bytes in memory, borrowed.
class MemoryBytes : public IBytes {
public:
    MemoryBytes(const unsigned char* data, size_t size) : m_data(data), m_size(size) {}
    uint64_t Size() const override { return m_size; }
    size_t ReadAt(uint64_t offset, unsigned char* to, size_t size) const override;

private:
    const unsigned char* const m_data;
    const size_t m_size;
};

// What tells two states of a file apart.
struct FileState {
    dev_t device = 0;
    ino_t inode = 0;
    uint64_t size = 0;
    time_t changed_sec = 0;
    long changed_ns = 0;

    bool operator==(const FileState& other) const;
    bool IsSameFile(const FileState& other) const { return device == other.device && inode == other.inode; }
};

// False if there is no plain file of that name.
bool ReadFileState(const std::string& path, FileState& state);

// FileBytes: an open file, of the size that it had then. One that other programs cut meanwhile gives fewer bytes: it is
// read and never mapped, as touching a mapping behind the end of its file ends the process.
//
// THREADING  Any number of threads, once opened.
class FileBytes : public IBytes {
public:
    FileBytes() = default;
    ~FileBytes() override;
    FileBytes(const FileBytes&) = delete;
    FileBytes& operator=(const FileBytes&) = delete;

    // Opens a plain file; false for anything else.
    bool Open(const std::string& path);
    const FileState& State() const { return m_state; }
    uint64_t Size() const override { return m_state.size; }
    size_t ReadAt(uint64_t offset, unsigned char* to, size_t size) const override;

private:
    int m_fd = -1;
    FileState m_state;
};

#endif  // VIDORA_HOST_FILEBYTES_H
