// Pool copies for the UI document layer: every name and value written into a document is copied
// into that document's rapidxml memory pool, so that callers' strings need not outlive the call.
// Internal to src/presentation; callers hold the document's thread.
#ifndef TIDEWAY_PRESENTATION_XMLPOOL_H_
#define TIDEWAY_PRESENTATION_XMLPOOL_H_

#include <stddef.h>
#include <string.h>

#include <rapidxml/rapidxml.hpp>

namespace xml_pool {

// A NUL-terminated copy of the `size` bytes at `text`, in the pool of `document`.
inline char* Copy(rapidxml::xml_document<char>& document, const char* text, size_t size) {
    char* copy = document.allocate_string(nullptr, size + 1);
    memcpy(copy, text, size);
    copy[size] = '\0';
    return copy;
}

inline void SetName(rapidxml::xml_document<char>& document, rapidxml::xml_node<char>* node,
                    const char* name) {
    const size_t size = strlen(name);
    node->name(Copy(document, name, size), size);
}

}  // namespace xml_pool

#endif  // TIDEWAY_PRESENTATION_XMLPOOL_H_
