#ifndef VIDORA_TESTS_SUPPORT_DESCRIPTORS_H
#define VIDORA_TESTS_SUPPORT_DESCRIPTORS_H

#include <dirent.h>

namespace Kavio::Support {

// Entries of the process's list of open descriptors: good for comparing with an earlier count.
inline int CountDescriptors() {
    int count = 0;
    DIR* dir = opendir("/proc/self/fd");
    while (dir != nullptr && readdir(dir) != nullptr) {
        ++count;
    }
    if (dir != nullptr) {
        closedir(dir);
    }
    return count;
}

}  // namespace Kavio::Support

#endif  // VIDORA_TESTS_SUPPORT_DESCRIPTORS_H
