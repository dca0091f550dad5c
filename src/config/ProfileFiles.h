// Reading of the profile files, shared by the configuration classes: decoding an obfuscated
// file, telling its type, and reading a file's bytes whole. Internal to config/.
#ifndef TIDEWAY_CONFIG_PROFILEFILES_H_
#define TIDEWAY_CONFIG_PROFILEFILES_H_

#include <string>

#include "config/ConfigKeys.h"
#include "config/XMLReadWrite.h"

namespace profile_files {

// Decodes an obfuscated file. 0, or 22 for any failure of the reader.
long DecodeFile(const std::string& path, std::string& text, bool stripMarker);

// Tells a plain XML file from an obfuscated one and checks that the latter decodes to XML. The
// decoded text (marker removed) is parsed into `into`, which keeps its document when the parse
// fails, or into a local store when `into` is null; `decoded` receives that text if given.
long ProbeFile(const std::string& path, ConfigFileType& type, std::string* decoded,
               CXMLReadWrite* into);

long ProbeFileType(const std::string& path, ConfigFileType& type);

// Reads a whole file in binary. False when it cannot be opened or read.
bool ReadWholeFile(const std::string& path, std::string& bytes);

}  // namespace profile_files

#endif  // TIDEWAY_CONFIG_PROFILEFILES_H_
