#ifndef VIDORA_TESTS_SUPPORT_DESCRIPTORS_H
#define VIDORA_TESTS_SUPPORT_DESCRIPTORS_H

#include <filesystem>
#include <iterator>

namespace Kavio::Support {

// Entries of the process's list of open descriptors: good for comparing with an earlier count.
inline int CountDescriptors() {
    const std::filesystem::directory_iterator entries("/proc/self/fd");
    return static_cast<int>(std::distance(entries, std::filesystem::directory_iterator()));
}

}  // namespace Kavio::Support

#endif  // VIDORA_TESTS_SUPPORT_DESCRIPTORS_H
