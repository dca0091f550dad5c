// Free functions for strings, paths, bounded copies and address text, shared by the
// configuration code, the message layer and the client API. None of them keeps state except
// the app-data root, which is fixed in the product and movable only by tests.
#ifndef TIDEWAY_COMMON_UTILS_H_
#define TIDEWAY_COMMON_UTILS_H_

#include <stddef.h>
#include <stdint.h>

#include <string>
#include <vector>

// 0 when equal, else -1. Texts of different lengths differ at once; only A-Z fold to a-z.
int CompareNoCase(const std::string& a, const std::string& b);

// Removes from both ends of `text`, in place, every byte found in `characters`. A text made up
// of those bytes alone is left as it was; an empty `characters` removes nothing.
void Trim(std::string& text, const std::string& characters);
// The same at the start only.
void TrimLeft(std::string& text, const std::string& characters);

// atoi of the text: leading blanks skipped, trailing garbage ignored, 0 for no number.
int StringToInt(const std::string& text);

// Bounded copies with errno-style results: 22 for a null pointer, 34 when the destination is
// too small (left untouched then), 0 after the copy.
int memcpy_s(void* destination, size_t destinationSize, const void* source, size_t count);
// 34 also for a destination size of 0 and for a source without NUL within destinationSize.
int strcpy_s(char* destination, size_t destinationSize, const char* source);

// Joins two path parts with `separator` ("/" in every caller). An empty part gives `first`
// unchanged; no separator is added when `second` starts with one or when `first` is one
// character followed by the separator. A result that is one character plus the separator
// loses the separator. A longer `first` ending in the separator gives a doubled separator.
std::string ConcatPath(const std::string& first, const std::string& second,
                       const std::string& separator);

// The root of the shared application data ("/opt" in the product). Always true.
bool GetAllUsersAppDataPath(std::string& out);
// Testing hook, not exported from the module: points GetAllUsersAppDataPath at `root`; an empty
// `root` restores "/opt". Safe while other threads read the path.
void SetAllUsersAppDataPathForTesting(const std::string& root);

// The working directory of the process when the module was loaded.
std::string GetInitialDirectory();
// A fresh name for a temporary file, "/tmp/VNA..." (tempnam); if tempnam fails,
// "/tmp/<local time stamp>.tmp". The file is not created.
std::string GetTempFileName();
// Writes the local time as "YYYY-MM-DDThh:mm:ss" into `buffer`, cut to `size` and always
// NUL-terminated. Does nothing for a null buffer or a size of 0.
void GetLocalTimeStamp(char* buffer, size_t size);

// True when `path` names anything (file, directory, link target...) whose status can be read.
bool FileExists(const std::string& path);
// Removes `path` if it exists. True when nothing is left to remove; on a failure logs
// "DeleteIfExists: Failed to remove '<path>': <reason>" at ERR and returns false.
bool DeleteIfExists(const std::string& path);

// inet_addr of the text (short forms such as "10.1" accepted) with the first octet in the most
// significant byte of `out`. 255.255.255.255 cannot be told from a failure and is refused:
// false with `out` set to 0.
bool ParseIPv4(const std::string& text, uint32_t& out);
// An IPv6 address into 16 bytes, network order. A scope suffix after "%" is allowed and
// dropped; the part before it must be shorter than 64 characters.
bool ParseIPv6(const std::string& text, uint8_t out[16]);

// Upper-case hexadecimal of `length` bytes, high nibble first, NUL-terminated, from new[] (the
// caller frees it with delete[]). Null for null input or when memory runs out; "" for a length
// below 1.
char* HexEncode(const unsigned char* bytes, int length);
// Decodes length/2 byte pairs of `text` (either case) into `output`; a trailing odd character
// is ignored and a length below 2 decodes nothing. On failure `error` says why, `output` is
// left empty and the result is false.
bool HexDecode(const char* text, int length, std::vector<unsigned char>& output,
               std::string& error);

// The characters every tokenizer and getter trims: blank, CR, LF, TAB.
constexpr const char* kWhitespace = " \r\n\t";

#endif  // TIDEWAY_COMMON_UTILS_H_
