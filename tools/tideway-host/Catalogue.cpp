#include "Catalogue.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <fstream>

bool Catalogue::Load(const std::string& path) {
    std::ifstream in(path);
    if (!in) {
        fprintf(stderr, "tideway-host: cannot read the catalogue %s\n", path.c_str());
        return false;
    }
    std::string line;
    for (unsigned number = 1; std::getline(in, line); ++number) {
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        if (line.empty() || line[0] == '#')
            continue;
        const size_t tab = line.find('\t');
        const std::string key = line.substr(0, tab);
        char* end = nullptr;
        const unsigned long value = strtoul(key.c_str(), &end, 10);
        if (tab == std::string::npos || key.empty() ||
            key.find_first_not_of("0123456789") != std::string::npos || value > UINT32_MAX) {
            fprintf(stderr, "tideway-host: %s:%u: not a key<TAB>text line\n", path.c_str(), number);
            return false;
        }
        texts_[static_cast<uint32_t>(value)] = line.substr(tab + 1);
    }
    return true;
}

std::string Catalogue::Text(uint32_t key) const {
    const auto it = texts_.find(key);
    return it != texts_.end() ? it->second : std::string();
}

int32_t Catalogue::TranslateText(uint32_t key, char* buffer, uint32_t& size) {
    const auto it = texts_.find(key);
    if (it == texts_.end()) {
        std::lock_guard<std::mutex> lock(missingMutex_);
        if (missing_.insert(key).second)
            fprintf(stderr, "tideway-host: no text for key %u in the catalogue\n", key);
        return -1;
    }
    const uint32_t needed = static_cast<uint32_t>(it->second.size() + 1);
    if (buffer == nullptr || size < needed) {
        size = needed;
        return -3;
    }
    memcpy(buffer, it->second.c_str(), needed);
    return 0;
}
