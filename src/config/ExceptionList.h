// The parser of the profile's exception and inclusion lists: a text of entries separated by
// ";" becomes a list of plain names and a vector of subnets in binary form. CDnConfigFile runs
// it over its three list keys at the end of each load (ExceptionList.cpp holds those members).
//
// Threads: a free function over its arguments, with no state; the caller guards the containers.
#ifndef TIDEWAY_CONFIG_EXCEPTIONLIST_H_
#define TIDEWAY_CONFIG_EXCEPTIONLIST_H_

#include <list>
#include <string>
#include <vector>

#include "config/ConfigKeys.h"

// Empties `names` and `addrs`, then visits the entries of `value` trimmed, sorted and without
// repeats: an entry without "/" goes to `names` as it stands, an IPv4 or IPv6 address with a
// valid prefix length to `addrs`; any other entry costs a warning and is skipped.
void ParseExceptionList(const std::string& value, std::list<std::string>& names,
                        std::vector<ExceptionAddress>& addrs);

#endif  // TIDEWAY_CONFIG_EXCEPTIONLIST_H_
