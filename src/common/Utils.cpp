#include "common/Utils.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <new>

#include <boost/asio/ip/address_v6.hpp>
#include <boost/filesystem.hpp>
#include <boost/system/error_code.hpp>

#include "common/Mutex.h"
#include "common/VNTrace.h"

namespace {

constexpr const char* kProductAppDataPath = "/opt";

// The app-data root: fixed in the product, movable by tests while other threads read it.
struct AppDataRoot {
    CMutex mutex;
    std::string path GUARDED_BY(mutex) = kProductAppDataPath;
};

AppDataRoot& TheAppDataRoot() {
    static AppDataRoot* root = new AppDataRoot;  // never destroyed: read until process exit
    return *root;
}

// boost::filesystem remembers the working directory of its first initial_path() call. Making
// that call while the module loads pins it to the directory the process was in at that time,
// not to wherever it has moved by the time the first plug-in is created.
const bool g_bInitialPathPinned = [] {
    boost::system::error_code ignored;
    boost::filesystem::initial_path(ignored);
    return true;
}();

}  // namespace

int CompareNoCase(const std::string& a, const std::string& b) {
    if (a.size() != b.size())
        return -1;
    for (size_t i = 0; i < a.size(); ++i) {
        unsigned char ca = static_cast<unsigned char>(a[i]);
        unsigned char cb = static_cast<unsigned char>(b[i]);
        if (ca >= 'A' && ca <= 'Z')
            ca = static_cast<unsigned char>(ca + 32);
        if (cb >= 'A' && cb <= 'Z')
            cb = static_cast<unsigned char>(cb + 32);
        if (ca != cb)
            return -1;
    }
    return 0;
}

int StringToInt(const std::string& text) {
    return atoi(text.c_str());
}

void Trim(std::string& text, const std::string& characters) {
    if (characters.empty())
        return;
    const size_t first = text.find_first_not_of(characters);
    if (first == std::string::npos)
        return;
    const size_t last = text.find_last_not_of(characters);
    text = text.substr(first, last - first + 1);
}

void TrimLeft(std::string& text, const std::string& characters) {
    if (characters.empty())
        return;
    const size_t first = text.find_first_not_of(characters);
    if (first == std::string::npos)
        return;
    text.erase(0, first);
}

int memcpy_s(void* destination, size_t destinationSize, const void* source, size_t count) {
    if (destination == nullptr || source == nullptr)
        return 22;
    if (destinationSize < count)
        return 34;
    if (count != 0)
        memcpy(destination, source, count);
    return 0;
}

int strcpy_s(char* destination, size_t destinationSize, const char* source) {
    if (destination == nullptr || source == nullptr)
        return 22;
    if (destinationSize == 0)
        return 34;
    const void* end = memchr(source, '\0', destinationSize);
    if (end == nullptr)
        return 34;
    memcpy(destination, source, static_cast<const char*>(end) - source + 1);
    return 0;
}

std::string ConcatPath(const std::string& first, const std::string& second,
                       const std::string& separator) {
    if (first.empty() || second.empty())
        return first;
    // Only a first part of one character plus the separator counts as ending in one.
    const bool firstEndsInSeparator = first.compare(1, std::string::npos, separator) == 0;
    const bool secondStartsWithSeparator = second.compare(0, 1, separator) == 0;
    std::string result = first;
    if (!firstEndsInSeparator && !secondStartsWithSeparator)
        result += separator;
    result += second;
    if (result.compare(1, std::string::npos, separator) == 0)
        result.pop_back();
    return result;
}

bool GetAllUsersAppDataPath(std::string& out) {
    AppDataRoot& root = TheAppDataRoot();
    CMutexLock lock(root.mutex);
    out = root.path;
    return true;
}

void SetAllUsersAppDataPathForTesting(const std::string& root) {
    AppDataRoot& state = TheAppDataRoot();
    CMutexLock lock(state.mutex);
    state.path = root.empty() ? std::string(kProductAppDataPath) : root;
}

std::string GetInitialDirectory() {
    (void)g_bInitialPathPinned;
    boost::system::error_code ec;
    return boost::filesystem::initial_path(ec).string();
}

std::string GetTempFileName() {
    char* name = tempnam("/tmp", "VNA");
    if (name != nullptr) {
        std::string result(name);
        free(name);
        return result;
    }
    char stamp[128];
    GetLocalTimeStamp(stamp, sizeof(stamp));
    return std::string("/tmp") + "/" + stamp + ".tmp";
}

void GetLocalTimeStamp(char* buffer, size_t size) {
    if (buffer == nullptr || size == 0)
        return;
    const time_t now = time(nullptr);
    struct tm local;
    if (localtime_r(&now, &local) == nullptr)
        memset(&local, 0, sizeof(local));
    snprintf(buffer, size, "%04d-%02d-%02dT%02d:%02d:%02d", local.tm_year + 1900, local.tm_mon + 1,
             local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec);
    buffer[size - 1] = '\0';
}

bool FileExists(const std::string& path) {
    boost::system::error_code ec;
    const boost::filesystem::file_type type = boost::filesystem::status(path, ec).type();
    return type != boost::filesystem::status_error && type != boost::filesystem::file_not_found;
}

bool DeleteIfExists(const std::string& path) {
    boost::system::error_code ec;
    boost::filesystem::remove(path, ec);
    if (ec) {
        VNTRACE(TL_ERR, "DeleteIfExists: Failed to remove '%s': %s", path.c_str(),
                ec.message().c_str());
        return false;
    }
    return true;
}

bool ParseIPv4(const std::string& text, uint32_t& out) {
    const in_addr_t address = inet_addr(text.c_str());
    if (address == INADDR_NONE) {
        out = 0;
        return false;
    }
    out = ntohl(address);
    return true;
}

bool ParseIPv6(const std::string& text, uint8_t out[16]) {
    boost::system::error_code ec;
    const boost::asio::ip::address_v6 address = boost::asio::ip::make_address_v6(text.c_str(), ec);
    if (ec)
        return false;
    const boost::asio::ip::address_v6::bytes_type bytes = address.to_bytes();
    memcpy(out, bytes.data(), bytes.size());
    return true;
}

char* HexEncode(const unsigned char* bytes, int length) {
    static const char kDigits[] = "0123456789ABCDEF";
    if (bytes == nullptr)
        return nullptr;
    const size_t count = length > 0 ? static_cast<size_t>(length) : 0;
    char* text = new (std::nothrow) char[count * 2 + 1];
    if (text == nullptr)
        return nullptr;
    for (size_t i = 0; i < count; ++i) {
        text[2 * i] = kDigits[bytes[i] >> 4];
        text[2 * i + 1] = kDigits[bytes[i] & 0x0F];
    }
    text[count * 2] = '\0';
    return text;
}

namespace {

int HexDigitValue(char c) {
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    return -1;
}

}  // namespace

bool HexDecode(const char* text, int length, std::vector<unsigned char>& output,
               std::string& error) {
    error.clear();
    output.clear();
    if (text == nullptr) {
        error = "Input buffer was NULL";
        return false;
    }
    if (length < 2)
        return true;
    try {
        output.resize(static_cast<size_t>(length) / 2);
        for (size_t i = 0; i < output.size(); ++i) {
            const char high = text[2 * i];
            const char low = text[2 * i + 1];
            const int highValue = HexDigitValue(high);
            const int lowValue = HexDigitValue(low);
            if (highValue < 0 || lowValue < 0) {
                output.clear();
                error = std::string("Input string contains invalid hexadecimal character (") +
                        (highValue < 0 ? high : low) + ")";
                return false;
            }
            output[i] = static_cast<unsigned char>((highValue << 4) | lowValue);
        }
    } catch (...) {
        output.clear();
        error = "Unknown error occured";
        return false;
    }
    return true;
}
