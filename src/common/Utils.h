// Free functions for strings, paths, bounded copies and address text, shared by the
// configuration code, the message layer and the client API. None of them keeps state except
// the app-data root, which is fixed in the product and movable only by tests.
#ifndef TIDEWAY_COMMON_UTILS_H_
#define TIDEWAY_COMMON_UTILS_H_

#include <stddef.h>
#include <stdint.h>

#include <string>

// Removes from both ends of `text`, in place, every byte found in `characters`. A text made up
// of those bytes alone is left as it was; an empty `characters` removes nothing.
void Trim(std::string& text, const std::string& characters);
// The same at the start only.
void TrimLeft(std::string& text, const std::string& characters);

// Bounded copies with errno-style results: 22 for a null pointer, 34 when the destination is
// too small (left untouched then), 0 after the copy.
int memcpy_s(void* destination, size_t destinationSize, const void* source, size_t count);
// 34 also for a destination size of 0 and for a source without NUL within destinationSize.
int strcpy_s(char* destination, size_t destinationSize, const char* source);

// The characters every tokenizer and getter trims: blank, CR, LF, TAB.
constexpr const char* kWhitespace = " \r\n\t";

#endif  // TIDEWAY_COMMON_UTILS_H_
