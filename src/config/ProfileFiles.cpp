#include "config/ProfileFiles.h"

#include <stdio.h>

#include <exception>
#include <fstream>
#include <iterator>
#include <new>
#include <string>

#include <openssl/evp.h>

#include "common/Mutex.h"
#include "common/OpenSSLCrypt.h"
#include "common/Utils.h"
#include "common/VNTrace.h"
#include "config/Config.h"

std::atomic<uint32_t> CConfig::m_ConfigFileType{kConfigFileUnknown};

namespace {

using Guard = CRecursiveLock;

// False when the file is not XML text: the parser skips an optional UTF-8 byte-order mark and
// blanks, CR, LF and TAB, and then needs a "<" or the end of the file (an empty or blank file
// is an empty plain document). Ciphertext nearly always fails this at its first byte, which
// spares reading and parsing the whole file as XML.
// A NUL byte there is refused although the parser would stop at it and take the file for an
// empty document: about one ciphertext in 256 begins with 0x00, and such a file must be probed
// as obfuscated, not typed plain and refused.
bool MayBeXml(const std::string& path) {
    FILE* file = fopen(path.c_str(), "rb");
    if (file == nullptr)
        return true;  // let the full check report on it
    unsigned char head[512];
    const size_t n = fread(head, 1, sizeof(head), file);
    fclose(file);
    size_t i = 0;
    if (n >= 3 && head[0] == 0xEF && head[1] == 0xBB && head[2] == 0xBF)
        i = 3;
    while (i < n && (head[i] == ' ' || head[i] == '\n' || head[i] == '\r' || head[i] == '\t'))
        ++i;
    return i == n || head[i] == '<';
}

}  // namespace

namespace profile_files {

// Decodes an obfuscated file. 0, or 22 for any failure of the reader.
long DecodeFile(const std::string& path, std::string& text, bool stripMarker) {
    std::string decoded;
    if (COpenSSLCrypt::DeObfuscateFiletoStr(path.c_str(), decoded, EVP_aes_128_cbc(), nullptr) != 0)
        return kConfigFileUndecodable;
    if (stripMarker && decoded.compare(0, kObfuscatedMarkerLength, kObfuscatedMarker) == 0)
        decoded.erase(0, kObfuscatedMarkerLength);
    text.swap(decoded);
    return 0;
}

// Tells a plain XML file from an obfuscated one and checks that the latter decodes to XML. The
// decoded text (marker removed) is parsed into `into`, which keeps its document when the parse
// fails, or into a local store when `into` is null; `decoded` receives that text if given.
long ProbeFile(const std::string& path, ConfigFileType& type, std::string* decoded,
               CXMLReadWrite* into) {
    type = kConfigFileUnknown;
    CXMLReadWrite local;
    if (MayBeXml(path) && local.IsXMLFile(path)) {
        type = kConfigFilePlainXml;
        return 0;
    }
    std::string text;
    const long code = DecodeFile(path, text, false);
    if (code != 0)
        return code;
    if (text.compare(0, kObfuscatedMarkerLength, kObfuscatedMarker) == 0)
        text.erase(0, kObfuscatedMarkerLength);
    const ConfigStatus parsed = (into != nullptr ? into : &local)->LoadFromString(text, true);
    if (parsed != kConfigOk) {
        VNTRACE(TL_ERR, "The config file is corrupted. Cannot load: \"%s\"", text.c_str());
        type = kConfigFileBadXml;
        return static_cast<long>(parsed);
    }
    type = kConfigFileObfuscated;
    if (decoded != nullptr)
        decoded->swap(text);
    return 0;
}

long ProbeFileType(const std::string& path, ConfigFileType& type) {
    return ProbeFile(path, type, nullptr, nullptr);
}

// Reads a whole file in binary. False when it cannot be opened or read (the stream library
// throws from a failed read, for instance of a folder, whatever the stream's exception mask).
bool ReadWholeFile(const std::string& path, std::string& bytes) {
    try {
        std::ifstream file(path.c_str(), std::ios::in | std::ios::binary);
        if (!file)
            return false;
        bytes.assign(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
        return !file.bad();
    } catch (const std::exception&) {
        bytes.clear();
        return false;
    }
}

}  // namespace profile_files

using profile_files::DecodeFile;
using profile_files::ProbeFile;
using profile_files::ReadWholeFile;

bool CConfig::EnsureStore() {
    Guard lock(m_Lock);
    if (m_pXml != nullptr)
        return true;
    m_pXml = new (std::nothrow) CXMLReadWriteConfig;
    if (m_pXml == nullptr) {
        VNTRACE(TL_ERR, "Config : Failed to create XML engine, System Out Of Memory!!!");
        return false;
    }
    return true;
}

void CConfig::DropStore() {
    Guard lock(m_Lock);
    delete m_pXml;
    m_pXml = nullptr;
}

bool CConfig::IsUpdateAvailable() {
    Guard lock(m_Lock);
    const std::string update = GetUpdateFileName();
    const std::string backup = GetBackupFileName();
    const std::string current = GetConfigFileName();
    if (!FileExists(update)) {
        VNTRACE(TL_WARN, "Config : Update file '%s' doesn't exist. Code :%ld", update.c_str(),
                kConfigFileMissing);
        return false;
    }
    if (!FileExists(backup)) {
        VNTRACE(TL_WARN, "Config : Backup file '%s' doesn't exist. Code :%ld", backup.c_str(),
                kConfigFileMissing);
        return true;
    }
    if (!FileExists(current)) {
        VNTRACE(TL_WARN, "Config : Config file '%s' doesn't exist. Code :%ld", current.c_str(),
                kConfigFileMissing);
        return true;
    }
    std::string text;
    const long code = DecodeFile(current, text, false);
    if (code != 0) {
        VNTRACE(TL_ERR, "Config : '%s' is corrupt: Result: %ld", current.c_str(), code);
        return true;
    }
    // The encoded bytes of the update against those of the last adopted one: a commit rewrites
    // the current file, while the backup keeps the file as it was delivered.
    std::string updateBytes;
    std::string backupBytes;
    if (!ReadWholeFile(update, updateBytes))
        return false;
    if (!ReadWholeFile(backup, backupBytes))
        return false;
    return updateBytes != backupBytes;
}

long CConfig::LoadConfigFile(bool update) {
    Guard lock(m_Lock);
    const std::string path = update ? GetUpdateFileName() : GetConfigFileName();
    if (!FileExists(path)) {
        VNTRACE(TL_ERR, "Config : File '%s' doesn't exist. Code :%ld", path.c_str(),
                kConfigFileMissing);
        return kConfigFileMissing;
    }
    if (!EnsureStore())
        return static_cast<long>(kConfigOutOfMemory);
    // The probe decodes the file and parses the text, marker removed, straight into the store:
    // that is the text a second read would give, and its parse the document a second parse
    // would make, so the file is read and parsed once. A failed parse leaves the store as it
    // was.
    ConfigFileType type = kConfigFileUnknown;
    std::string text;
    const long code = ProbeFile(path, type, &text, m_pXml);
    m_ConfigFileType = type;
    if (code != 0) {
        VNTRACE(TL_ERR, "Config : Failed to load config file (%s). Config Type : %d. Code :%ld",
                path.c_str(), static_cast<int>(type), code);
        return code;
    }
    if (type != kConfigFileObfuscated) {
        VNTRACE(TL_ERR, "Config : The service only loads an obfuscated configuration file");
        return kConfigFileUndecodable;
    }

    // Group lists arrive with one group a line; the running profile wants them comma-separated.
    // The file's text itself is not changed.
    static const std::string kGroupsTag = std::string(cfgkey::kAuthenticatedGroups) + ">";
    std::string groups;
    bool repaired = false;
    const size_t opening = text.find(kGroupsTag);
    if (opening != std::string::npos) {
        const size_t start = opening + kGroupsTag.size();
        const size_t closing = text.find(kGroupsTag, start);
        if (closing == std::string::npos) {
            VNTRACE(TL_WARN, "Config : Malformed XML. Closing auth groups tag not found.");
        } else {
            // The value ends two characters before the closing match, leaving out its "</".
            if (closing >= start + 2)
                groups = text.substr(start, closing - 2 - start);
            for (char& c : groups) {
                if (c == '\n') {
                    c = ',';
                    repaired = true;
                }
            }
        }
    }

    if (repaired) {
        m_pXml->PutValue(std::string(kConfigBasePathSlash) + cfgkey::kAuthenticatedGroups, groups);
    }
    return 0;
}

bool CConfig::GetProfileLabel(std::string& out) {
    Guard lock(m_Lock);
    if (m_pXml == nullptr) {
        VNTRACE(TL_ERR, "GetProfileLabel : NULL pointer.");
        return false;
    }
    m_pXml->GetValue(kProfileLabelPath, out);
    return true;
}
