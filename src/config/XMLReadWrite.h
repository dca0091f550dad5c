// CXMLReadWrite holds one XML document as a property tree and offers path-addressed access to
// it; CXMLReadWriteConfig adds the walk and the edits of the profile's ConfigurationParameters.
//
// Ownership and threads: the configuration object owns its store; any thread may call the
// public operations, each of which holds m_Mutex (recursive) for its length, so an EnumConfig
// callback may call back into the store on the same thread. FindNode, ClearNode, AddInto and
// AddChildNode work on a sub-tree in hand and take no lock: the caller holds m_Mutex or owns the
// sub-tree. m_XmlTree, m_DocumentGeneration and m_ConfigNode are guarded by m_Mutex. Nothing
// throws out of these operations except exceptions that are not std::exception.
#ifndef TIDEWAY_CONFIG_XMLREADWRITE_H_
#define TIDEWAY_CONFIG_XMLREADWRITE_H_

#include <stdint.h>

#include <string>
#include <utility>
#include <vector>

#include <boost/property_tree/ptree.hpp>

#include "common/Mutex.h"
#include "common/ThreadAnnotations.h"
#include "config/ConfigStatus.h"
#include "config/TowerInfo.h"

// A child of DetectClosestTower as EnumConfig reports it: the child's name and its text.
using DctSetting = std::pair<std::string, std::string>;

// Callback of EnumConfig. `key` is NUL-terminated; what `value` points at depends on the key:
//   "Tower"              const TowerInfo*
//   "DetectClosestTower" const DctSetting*
//   anything else        const char*, the element's text, NUL-terminated
// No text is ever reported under a name equal, ignoring ASCII case, to "Tower" or
// "DetectClosestTower": such stray elements are skipped with a warning. The value lives only for
// the length of the call.
typedef void (*EnumConfigCallback)(void* context, const char* key, const void* value);

class CXMLReadWrite {
  public:
    // Deepest element nesting a load accepts. A profile is five levels deep; the parser and the
    // tree recurse once a level, so a document nested thousands deep would exhaust the stack.
    static constexpr int kMaxXmlDepth = 256;

    CXMLReadWrite();
    virtual ~CXMLReadWrite();
    CXMLReadWrite(const CXMLReadWrite&) = delete;
    CXMLReadWrite& operator=(const CXMLReadWrite&) = delete;

    // Not offered by the plain store: kConfigNotImpl at once.
    virtual ConfigStatus EnumConfig(void* context, EnumConfigCallback callback, bool reportAll);

    // Parse `text` (or the file at `path`, default locale) into the document, replacing it.
    // Comments are dropped; with `flag`, leading and trailing blanks of element text are trimmed.
    // A text without an element loads as an empty document, which counts as not loaded.
    // On failure the previous document stays and the result is kConfigFail, with no log line.
    ConfigStatus LoadFromString(const std::string& text, bool flag);
    ConfigStatus LoadFromFile(const std::string& path, bool flag);
    // True when the file parses as XML (trimming, no comments). The document is not touched.
    bool IsXMLFile(const std::string& path);

    // The whole document as text: indent of four blanks, encoding "utf-8".
    ConfigStatus GetXML(std::string& out);

    // Paths of these four use "/" between the parts. A document is loaded when its root has a
    // child. GetValue empties `out` first; a missing node is kConfigFail without a log line.
    ConfigStatus GetValue(const std::string& path, std::string& out);
    // Creates what is missing and overwrites the text of the first match.
    ConfigStatus PutValue(const std::string& path, const std::string& value);
    // Copies the sub-tree at `path` into `outTree`.
    bool GetChild(const std::string& path, boost::property_tree::ptree& outTree);
    bool NodeExists(const std::string& path);

    // On a sub-tree in hand, without a lock of their own.
    // Points `outPointer` at the node at the "/" path under `root`; null on failure.
    ConfigStatus FindNode(const std::string& path, boost::property_tree::ptree& root,
                          boost::property_tree::ptree*& outPointer);
    // Empties the child at the "." path: its text and children go, the element stays.
    ConfigStatus ClearNode(const std::string& path, boost::property_tree::ptree* node);
    // Appends a new element at the "." path, even when one of that name exists.
    ConfigStatus AddInto(const std::string& key, const std::string& value,
                         boost::property_tree::ptree& tree);
    // Appends a copy of `subTree` at the "/" path, creating the parents that are missing.
    ConfigStatus AddChildNode(const std::string& path, boost::property_tree::ptree* node,
                              const boost::property_tree::ptree& subTree);

  protected:
    // Parses `text` into `out` after the nesting check; a text without an element gives an
    // empty tree. Throws std::exception on failure.
    static void ParseInto(const std::string& text, int readFlags, boost::property_tree::ptree& out);
    bool IsLoaded() const REQUIRES(m_Mutex) { return !m_XmlTree.empty(); }

    // Recursive so that an EnumConfig callback may call back into the store on its thread.
    CRecursiveMutex m_Mutex;
    boost::property_tree::ptree m_XmlTree GUARDED_BY(m_Mutex);
    // Counts the loads that replaced the document, so that a pointer into an earlier document
    // can be recognised as stale instead of being followed.
    uint64_t m_DocumentGeneration GUARDED_BY(m_Mutex);

  private:
    // The frame of the by-path reads: under m_Mutex, a document that is not loaded logs
    // `notLoaded` at ERR and gives `failed`; otherwise `operation(document)` gives the result.
    // A std::exception (a failure to lock among them) gives `failed` after `onError(exception)`,
    // which runs once the lock is gone. `operation` must not keep the document reference.
    template <typename Result, typename Operation, typename OnError>
    Result OnLoadedDocument(const char* notLoaded, Result failed, Operation operation,
                            OnError onError);
};

class CXMLReadWriteConfig : public CXMLReadWrite {
  public:
    CXMLReadWriteConfig();
    ~CXMLReadWriteConfig() override;

    // Walks the children of Tideway/ConfigurationParameters in document order and reports them
    // to `callback` (see EnumConfigCallback). Sets m_ConfigNode for the edits below.
    ConfigStatus EnumConfig(void* context, EnumConfigCallback callback, bool reportAll) override;

    // Empties the child `path` ("." path) of ConfigurationParameters; a missing child changes
    // nothing and logs nothing.
    void DeleteConfigNode(const std::string& path);
    // Appends a copy of `serversTree` as TrustedNetworkDetection/TrustedServers.
    ConfigStatus AddTNDServersToConfig(const boost::property_tree::ptree& serversTree);
    // Appends one Towers/Tower element per record, in list order. 1 for an empty list, else 0.
    ConfigStatus AddTowersToConfig(const std::vector<TowerInfo>& towerList);

  private:
    // m_ConfigNode when it points into the current document, else null.
    boost::property_tree::ptree* ValidConfigNode() REQUIRES(m_Mutex);
    // The frame of the edits of the configuration node: under m_Mutex, a node that EnumConfig
    // has not found in the current document logs "Configuration node pointer not valid" at ERR
    // and gives `noNode`; otherwise `operation(node)` gives the result. A failure to lock is
    // logged at ERR, after the lock, as `lockContext` followed by "boost::lock_error : " and its
    // text, and gives `noLock`; other exceptions pass through. `operation` must not keep the
    // node reference.
    template <typename Result, typename Operation>
    Result OnConfigNode(const char* lockContext, Result noNode, Result noLock, Operation operation);

    // Not owned; null until EnumConfig finds it.
    boost::property_tree::ptree* m_ConfigNode GUARDED_BY(m_Mutex);
    // m_DocumentGeneration when it was found.
    uint64_t m_ConfigNodeGeneration GUARDED_BY(m_Mutex);
};

#endif  // TIDEWAY_CONFIG_XMLREADWRITE_H_
