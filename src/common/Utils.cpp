#include "common/Utils.h"

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
