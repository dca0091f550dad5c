#include "common/Utils.h"

#include <string.h>

void Trim(std::string& text, const std::string& characters) {
    if (characters.empty()) return;
    const size_t first = text.find_first_not_of(characters);
    if (first == std::string::npos) return;
    const size_t last = text.find_last_not_of(characters);
    text = text.substr(first, last - first + 1);
}

void TrimLeft(std::string& text, const std::string& characters) {
    if (characters.empty()) return;
    const size_t first = text.find_first_not_of(characters);
    if (first == std::string::npos) return;
    text.erase(0, first);
}

int memcpy_s(void* destination, size_t destinationSize, const void* source, size_t count) {
    if (destination == nullptr || source == nullptr) return 22;
    if (destinationSize < count) return 34;
    if (count != 0) memcpy(destination, source, count);
    return 0;
}

int strcpy_s(char* destination, size_t destinationSize, const char* source) {
    if (destination == nullptr || source == nullptr) return 22;
    if (destinationSize == 0) return 34;
    const void* end = memchr(source, '\0', destinationSize);
    if (end == nullptr) return 34;
    memcpy(destination, source, static_cast<const char*>(end) - source + 1);
    return 0;
}
