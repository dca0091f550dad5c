#include "config/XMLReadWrite.h"

#include <string.h>

#include <exception>
#include <fstream>
#include <iterator>
#include <locale>
#include <sstream>

#include <boost/property_tree/xml_parser.hpp>
#include <boost/thread/exceptions.hpp>

#include "common/Utils.h"
#include "common/VNTrace.h"

namespace pt = boost::property_tree;

namespace {

// Read flags of the tree library: 2 drops comments, 4 trims element text.
int ReadFlags(bool flag) {
    return static_cast<int>(flag) * 4 + 2;
}

pt::ptree::path_type SlashPath(const std::string& path) {
    return pt::ptree::path_type(path, '/');
}

pt::ptree::path_type DotPath(const std::string& path) {
    return pt::ptree::path_type(path, '.');
}

// True when no element of `text` is nested deeper than `limit`. The count errs on the high
// side of what the parser would recurse: every start tag that does not close itself opens a
// level and every end tag closes one; comments, CDATA sections, processing instructions and
// declarations are skipped as the parser skips them, and quoted attribute values are passed
// over. Text the parser would reject anyway may be counted either way.
bool NestingWithin(const std::string& text, int limit) {
    const size_t n = text.size();
    int depth = 0;
    size_t i = 0;
    while (i < n) {
        const size_t open = text.find('<', i);
        if (open == std::string::npos)
            break;
        i = open + 1;
        const char* skipTo = nullptr;
        size_t from = i;
        if (text.compare(open, 4, "<!--") == 0) {
            skipTo = "-->";
            from = open + 4;
        } else if (text.compare(open, 9, "<![CDATA[") == 0) {
            skipTo = "]]>";
            from = open + 9;
        } else if (i < n && text[i] == '?') {
            skipTo = "?>";
            from = i + 1;
        } else if (i < n && text[i] == '!') {
            skipTo = ">";
        } else if (i < n && text[i] == '/') {
            if (depth > 0)
                --depth;
            skipTo = ">";
        }
        if (skipTo != nullptr) {
            const size_t end = text.find(skipTo, from);
            if (end == std::string::npos)
                return true;  // unterminated: nothing after it can nest
            i = end + strlen(skipTo);
            continue;
        }
        // A start tag: find its '>' outside quoted values.
        char quote = 0;
        size_t j = i;
        for (; j < n; ++j) {
            const char c = text[j];
            if (quote != 0) {
                if (c == quote)
                    quote = 0;
            } else if (c == '"' || c == '\'') {
                quote = c;
            } else if (c == '>') {
                break;
            }
        }
        if (j >= n)
            return true;
        if (text[j - 1] != '/' && ++depth > limit)
            return false;
        i = j + 1;
    }
    return true;
}

}  // namespace

CXMLReadWrite::CXMLReadWrite() : m_DocumentGeneration(0) {}

CXMLReadWrite::~CXMLReadWrite() {}

ConfigStatus CXMLReadWrite::EnumConfig(void*, EnumConfigCallback, bool) {
    return kConfigNotImpl;
}

void CXMLReadWrite::ParseInto(const std::string& text, int readFlags, pt::ptree& out) {
    if (!NestingWithin(text, kMaxXmlDepth))
        throw std::runtime_error("XML nested too deeply");
    std::istringstream stream(text);
    // A text without any element (empty, blanks, a lone declaration) parses to an empty
    // document; it replaces the one in memory like any other.
    pt::read_xml(stream, out, readFlags);
}

ConfigStatus CXMLReadWrite::LoadFromString(const std::string& text, bool flag) {
    std::string error;  // kept for a debugger; parse failures are worded by the caller
    try {
        pt::ptree parsed;
        ParseInto(text, ReadFlags(flag), parsed);
        CRecursiveLock lock(m_Mutex);
        m_XmlTree.swap(parsed);
        ++m_DocumentGeneration;
        // The old document is destroyed with `parsed`, after the lock.
    } catch (const std::exception& e) {
        error = e.what();
        return kConfigFail;
    }
    return kConfigOk;
}

ConfigStatus CXMLReadWrite::LoadFromFile(const std::string& path, bool flag) {
    std::string error;
    try {
        std::ifstream file(path.c_str());
        if (!file)
            throw pt::xml_parser_error("cannot open file", path, 0);
        file.imbue(std::locale());
        const std::string text{std::istreambuf_iterator<char>(file),
                               std::istreambuf_iterator<char>()};
        if (file.bad())
            throw pt::xml_parser_error("read error", path, 0);
        return LoadFromString(text, flag);
    } catch (const std::exception& e) {
        error = e.what();
        return kConfigFail;
    }
}

bool CXMLReadWrite::IsXMLFile(const std::string& path) {
    try {
        std::ifstream file(path.c_str());
        if (!file)
            return false;
        file.imbue(std::locale());
        const std::string text{std::istreambuf_iterator<char>(file),
                               std::istreambuf_iterator<char>()};
        if (file.bad())
            return false;
        pt::ptree local;
        ParseInto(text, ReadFlags(true), local);
        return true;
    } catch (const std::exception&) {
        return false;
    }
}

ConfigStatus CXMLReadWrite::GetXML(std::string& out) {
    std::string error;
    try {
        CRecursiveLock lock(m_Mutex);
        std::ostringstream stream;
        pt::write_xml(stream, m_XmlTree,
                      pt::xml_writer_make_settings<std::string>(' ', 4, "utf-8"));
        out = stream.str();
        return kConfigOk;
    } catch (const std::exception& e) {
        error = e.what();
    }
    VNTRACE(TL_ERR, "Error getting XML: %s", error.c_str());
    return kConfigFail;
}

template <typename Result, typename Operation, typename OnError>
Result CXMLReadWrite::OnLoadedDocument(const char* notLoaded, Result failed, Operation operation,
                                       OnError onError) {
    try {
        CRecursiveLock lock(m_Mutex);
        if (!IsLoaded()) {
            VNTRACE(TL_ERR, "%s", notLoaded);
            return failed;
        }
        return operation(m_XmlTree);
    } catch (const std::exception& e) {
        // The lock is gone by now: the guard was destroyed before the handler was entered.
        onError(e);
        return failed;
    }
}

ConfigStatus CXMLReadWrite::GetValue(const std::string& path, std::string& out) {
    out.clear();
    return OnLoadedDocument(
        "XML has not been loaded.", kConfigFail,
        [&](const pt::ptree& document) {
            out = document.get_child(SlashPath(path)).data();
            return kConfigOk;
        },
        // A missing node is an ordinary answer: every optional key is read this way.
        [&](const std::exception&) { out.clear(); });
}

ConfigStatus CXMLReadWrite::PutValue(const std::string& path, const std::string& value) {
    std::string error;
    try {
        CRecursiveLock lock(m_Mutex);
        m_XmlTree.put(SlashPath(path), value);
        return kConfigOk;
    } catch (const std::exception& e) {
        error = e.what();
        return kConfigFail;
    }
}

bool CXMLReadWrite::GetChild(const std::string& path, pt::ptree& outTree) {
    return OnLoadedDocument(
        "XMLParser : XML not loaded", false,
        [&](const pt::ptree& document) {
            pt::ptree copy = document.get_child(SlashPath(path));
            outTree.swap(copy);
            return true;
        },
        [&](const std::exception& e) {
            VNTRACE(TL_ERR, "XMLParser : Error getting child node %s : %s", path.c_str(), e.what());
        });
}

bool CXMLReadWrite::NodeExists(const std::string& path) {
    return OnLoadedDocument(
        "XMLParser : XML not loaded", false,
        [&](const pt::ptree& document) {
            return static_cast<bool>(document.get_child_optional(SlashPath(path)));
        },
        [](const std::exception&) {});
}

ConfigStatus CXMLReadWrite::FindNode(const std::string& path, pt::ptree& root,
                                     pt::ptree*& outPointer) {
    outPointer = nullptr;
    std::string error;
    try {
        if (root.empty()) {
            // The message's historical format has an upper-case %S, a wide-string conversion;
            // the path is narrow text, so the line is built here and printed with %s.
            const std::string line = "XMLParser : Parent of " + path + " node doesn't exist";
            VNTRACE(TL_ERR, "%s", line.c_str());
            return kConfigFail;
        }
        outPointer = &root.get_child(SlashPath(path));
        return kConfigOk;
    } catch (const std::exception& e) {
        error = e.what();
        outPointer = nullptr;
        return kConfigFail;
    }
}

ConfigStatus CXMLReadWrite::ClearNode(const std::string& path, pt::ptree* node) {
    std::string error;
    try {
        if (node == nullptr)
            return kConfigFail;
        node->get_child(DotPath(path)).clear();
        return kConfigOk;
    } catch (const std::exception& e) {
        error = e.what();
        return kConfigFail;
    }
}

ConfigStatus CXMLReadWrite::AddInto(const std::string& key, const std::string& value,
                                    pt::ptree& tree) {
    std::string error;
    try {
        tree.add(DotPath(key), value);
        return kConfigOk;
    } catch (const std::exception& e) {
        error = e.what();
        return kConfigFail;
    }
}

ConfigStatus CXMLReadWrite::AddChildNode(const std::string& path, pt::ptree* node,
                                         const pt::ptree& subTree) {
    std::string error;
    try {
        if (node == nullptr)
            return kConfigFail;
        node->add_child(SlashPath(path), subTree);
        return kConfigOk;
    } catch (const std::exception& e) {
        error = e.what();
        return kConfigFail;
    }
}

CXMLReadWriteConfig::CXMLReadWriteConfig() : m_ConfigNode(nullptr), m_ConfigNodeGeneration(0) {}

CXMLReadWriteConfig::~CXMLReadWriteConfig() {}

pt::ptree* CXMLReadWriteConfig::ValidConfigNode() {
    if (m_ConfigNodeGeneration != m_DocumentGeneration)
        m_ConfigNode = nullptr;
    return m_ConfigNode;
}

ConfigStatus CXMLReadWriteConfig::EnumConfig(void* context, EnumConfigCallback callback,
                                             bool reportAll) {
    ConfigStatus status = kConfigOk;
    bool lockFailed = false;
    std::string lockError;
    try {
        CRecursiveLock lock(m_Mutex);
        status = FindNode("Tideway/ConfigurationParameters", m_XmlTree, m_ConfigNode);
        m_ConfigNodeGeneration = m_DocumentGeneration;
        if (m_ConfigNode == nullptr || m_ConfigNode->empty()) {
            VNTRACE(TL_ERR, "XMLParser : Config node not found in Config file");
            throw kConfigFail;
        }
        // The walk goes over a copy, so that a callback that edits or reloads the store through
        // the recursive lock cannot pull nodes away from under it.
        const pt::ptree snapshot = *m_ConfigNode;
        for (const auto& child : snapshot) {
            const char* const name = child.first.c_str();
            if (strcmp(name, "Towers") == 0) {
                for (const auto& tower : child.second) {
                    TowerInfo info;
                    for (const auto& field : tower.second) {
                        if (CompareNoCase(field.first, "DisplayName") == 0) {
                            info.DisplayName = field.second.data();
                        } else if (CompareNoCase(field.first, "Active") == 0) {
                            info.Active = field.second.data();
                        } else if (CompareNoCase(field.first, "HostName") == 0) {
                            info.HostName = field.second.data();
                        } else if (CompareNoCase(field.first, "PlainPort") == 0) {
                            info.PlainPort = field.second.data();
                        } else if (CompareNoCase(field.first, "SSLPort") == 0) {
                            info.SSLPort = field.second.data();
                        }
                    }
                    if (callback != nullptr)
                        callback(context, "Tower", &info);
                }
            } else if (strcmp(name, "Address") == 0) {
                if (callback != nullptr)
                    callback(context, "Address", child.second.data().c_str());
            } else if (strcmp(name, "DetectClosestTower") == 0) {
                for (const auto& setting : child.second) {
                    const DctSetting pair(setting.first, setting.second.data());
                    if (callback != nullptr)
                        callback(context, "DetectClosestTower", &pair);
                }
            } else if (strcmp(name, "DetectOnLANClient") == 0) {
                VNTRACE(TL_WARN,
                        "The Detect on LAN feature is no longer supported. Use the Trusted "
                        "Network Detection feature instead.");
            } else if (reportAll && callback != nullptr) {
                // A stray element spelled like a typed key (a Tower outside Towers, or
                // "detectclosesttower") would reach callbacks that match keys ignoring case with a
                // text where they expect a record. It is left out.
                if (CompareNoCase(child.first, "Tower") == 0 ||
                    CompareNoCase(child.first, "DetectClosestTower") == 0) {
                    VNTRACE(TL_WARN, "XMLParser : Element '%s' ignored: its name is reserved",
                            name);
                    continue;
                }
                callback(context, name, child.second.data().c_str());
            }
        }
    } catch (ConfigStatus thrown) {
        status = thrown;
    } catch (const boost::lock_error& e) {
        lockFailed = true;
        lockError = e.what();
        status = kConfigFail;
    } catch (...) {
        // Anything else ends the walk with the status of the node search.
    }
    if (lockFailed)
        VNTRACE(TL_ERR, "Error: %s", lockError.c_str());
    return status;
}

template <typename Result, typename Operation>
Result CXMLReadWriteConfig::OnConfigNode(const char* lockContext, Result noNode, Result noLock,
                                         Operation operation) {
    try {
        CRecursiveLock lock(m_Mutex);
        pt::ptree* const node = ValidConfigNode();
        if (node == nullptr) {
            VNTRACE(TL_ERR, "Configuration node pointer not valid");
            return noNode;
        }
        return operation(*node);
    } catch (const boost::lock_error& e) {
        // The lock is gone by now: the guard was destroyed before the handler was entered.
        const std::string line = std::string(lockContext) + "boost::lock_error : " + e.what();
        VNTRACE(TL_ERR, "%s", line.c_str());
        return noLock;
    }
}

void CXMLReadWriteConfig::DeleteConfigNode(const std::string& path) {
    OnConfigNode("", false, false, [&](pt::ptree& node) {
        if (node.empty()) {
            VNTRACE(TL_ERR, "Configuration node is empty, nothing to remove.");
            return false;
        }
        // A missing child is kConfigFail, which is not negative: it passes without a word.
        if (ClearNode(path, &node) < 0)
            VNTRACE(TL_ERR, "Error deleting node.");
        return true;
    });
}

ConfigStatus CXMLReadWriteConfig::AddTNDServersToConfig(const pt::ptree& serversTree) {
    const std::string path = std::string("TrustedNetworkDetection") + "/" + "TrustedServers";
    return OnConfigNode("AddTNDServersToConfig: ", kConfigFail, kConfigFail, [&](pt::ptree& node) {
        const ConfigStatus status = AddChildNode(path, &node, serversTree);
        // kConfigFail is not negative and passes here as success.
        if (status < 0)
            VNTRACE(TL_ERR, "Error appending TND.");
        return status;
    });
}

ConfigStatus CXMLReadWriteConfig::AddTowersToConfig(const std::vector<TowerInfo>& towerList) {
    if (towerList.empty())
        return 1;
    const std::string path = std::string("Towers") + "/" + "Tower";
    for (const TowerInfo& tower : towerList) {
        pt::ptree tree;
        AddInto("DisplayName", tower.DisplayName, tree);
        AddInto("Active", tower.Active, tree);
        AddInto("HostName", tower.HostName, tree);
        AddInto("SSLPort", tower.SSLPort, tree);
        AddInto("PlainPort", tower.PlainPort, tree);
        // A node that is gone ends the list; a failure to lock skips this tower only.
        const bool goOn = OnConfigNode("AddTowersToConfig: ", false, true, [&](pt::ptree& node) {
            if (AddChildNode(path, &node, tree) < 0)
                VNTRACE(TL_ERR, "Error appending Tower.");
            return true;
        });
        if (!goOn)
            return kConfigFail;
    }
    return kConfigOk;
}
