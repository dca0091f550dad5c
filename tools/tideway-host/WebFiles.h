// The files the web face serves: only plain names directly inside the web root, of the few
// types the page is made of. Free functions without state; any thread.
#ifndef TIDEWAY_TOOLS_TIDEWAY_HOST_WEBFILES_H_
#define TIDEWAY_TOOLS_TIDEWAY_HOST_WEBFILES_H_

#include <stddef.h>

#include <string>

// The largest file served; the page's files are far smaller.
constexpr size_t kMaxWebFileBytes = 16 << 20;

// The file name that a request target names: "index.html" for "/", the rest of the path for
// "/NAME" (a query is ignored). Empty when the target names nothing servable: a name that is not
// made of [A-Za-z0-9._-] only, that starts with a dot, that has a subfolder, or whose type is
// not one of .html, .js, .css, .png, .svg, .ico.
std::string ServableName(const std::string& target);

// The Content-Type for a name that ServableName accepted.
const char* ContentTypeOf(const std::string& name);

// Reads root/name into `body`. False when the file is missing, is not a regular file, is larger
// than kMaxWebFileBytes, or resolves (through a symbolic link) to a file outside `root`, which
// must be a real path without a trailing slash.
bool ReadWebFile(const std::string& root, const std::string& name, std::string& body);

#endif  // TIDEWAY_TOOLS_TIDEWAY_HOST_WEBFILES_H_
