#include "NoticeCache.h"

#include <string.h>

#include <set>

#include <rapidxml/rapidxml.hpp>

namespace {

using Node = rapidxml::xml_node<char>;
using KeySet = std::set<std::string>;

std::string Attribute(const Node* node, const char* name) {
    const rapidxml::xml_attribute<char>* attribute = node->first_attribute(name);
    return attribute != nullptr ? std::string(attribute->value(), attribute->value_size())
                                : std::string();
}

// The keys that a control with an id sets: "path@attribute" for each of its attributes,
// "path#" when it has children without an id (comboitems, radios, columns: they replace the
// control's content), and the keys of its children with an id under "path/childId". Ids are
// joined into paths because the same row id stands in both statistics boxes.
void CollectKeys(const Node* node, const std::string& path, KeySet& keys) {
    for (auto* a = node->first_attribute(); a != nullptr; a = a->next_attribute()) {
        if (strcmp(a->name(), "id") != 0)
            keys.insert(path + "@" + a->name());
    }
    for (const Node* child = node->first_node(); child != nullptr; child = child->next_sibling()) {
        if (child->type() != rapidxml::node_element)
            continue;
        const std::string id = Attribute(child, "id");
        if (id.empty())
            keys.insert(path + "#");
        else
            CollectKeys(child, path + "/" + id, keys);
    }
}

}  // namespace

NoticeCache::Outcome NoticeCache::Add(const std::string& xml, Payload payload) {
    // rapidxml parses in place; the notice stays untouched for the replay.
    std::vector<char> text(xml.begin(), xml.end());
    text.push_back('\0');
    rapidxml::xml_document<char> document;
    try {
        document.parse<0>(text.data());
    } catch (const rapidxml::parse_error&) {
        return Outcome::kIgnored;
    }
    const Node* root = document.first_node("brguiNotice");
    if (root == nullptr)
        return Outcome::kIgnored;
    const std::string type = Attribute(root, "type");

    if (type == "setup") {
        // A setup defines the whole page anew: nothing that came before it counts any more.
        Reset();
        setup_ = std::move(payload);
        return Outcome::kKept;
    }

    if (type == "popup") {
        const Node* popup = root->first_node("popup");
        const std::string id = popup != nullptr ? Attribute(popup, "id") : std::string();
        const auto open = popups_.find(id);
        if (open != popups_.end()) {
            open->second->openPopup = false;
            EraseIfUnused(open->second);
            popups_.erase(open);
        }
        if (popup != nullptr && Attribute(popup, "dispose") == "true")
            return Outcome::kDisposed;
        // The plug-in never disposes of an error pop-up: replayed, an error the person has
        // already acknowledged would come back on every reload and every new page.
        if (popup != nullptr && Attribute(popup, "type") == "error")
            return Outcome::kNothingKept;
        entries_.push_back(Entry{std::move(payload), 0, false, true});
        popups_[id] = std::prev(entries_.end());
        return Outcome::kKept;
    }

    if (type != "update")
        return Outcome::kIgnored;

    KeySet keys;
    bool carriesLog = false;
    for (auto* a = root->first_attribute(); a != nullptr; a = a->next_attribute()) {
        const char* name = a->name();
        if (strcmp(name, "module") != 0 && strcmp(name, "type") != 0 && strcmp(name, "tag") != 0 &&
            strcmp(name, "timestamp") != 0)
            keys.insert(std::string("@") + name);
    }
    for (const Node* child = root->first_node(); child != nullptr; child = child->next_sibling()) {
        if (child->type() != rapidxml::node_element)
            continue;
        const std::string id = Attribute(child, "id");
        if (!id.empty())
            CollectKeys(child, id, keys);
        else if (strcmp(child->name(), "log") == 0)
            carriesLog = true;
        else
            keys.insert(std::string("<") + child->name() + ">");
    }
    if (keys.empty() && !carriesLog)
        return Outcome::kNothingKept;

    entries_.push_back(Entry{std::move(payload), keys.size(), carriesLog, false});
    const EntryList::iterator entry = std::prev(entries_.end());
    for (const std::string& key : keys) {
        auto owner = owners_.find(key);
        if (owner == owners_.end()) {
            owners_.emplace(key, entry);
            continue;
        }
        const EntryList::iterator previous = owner->second;
        owner->second = entry;
        --previous->liveKeys;
        EraseIfUnused(previous);
    }
    if (carriesLog) {
        logEntries_.push_back(entry);
        if (logEntries_.size() > kMaxLogNotices) {
            const EntryList::iterator oldest = logEntries_.front();
            logEntries_.pop_front();
            oldest->logKept = false;
            EraseIfUnused(oldest);
        }
    }
    return Outcome::kKept;
}

std::vector<NoticeCache::Payload> NoticeCache::Replay() const {
    std::vector<Payload> replay;
    replay.reserve(entries_.size() + 1);
    if (setup_)
        replay.push_back(setup_);
    for (const Entry& entry : entries_)
        replay.push_back(entry.payload);
    return replay;
}

void NoticeCache::Reset() {
    setup_.reset();
    owners_.clear();
    popups_.clear();
    logEntries_.clear();
    entries_.clear();
}

// An entry that no key, log window or open pop-up holds any more leaves the replay. Nothing
// else refers to it then, so the iterator can go.
void NoticeCache::EraseIfUnused(EntryList::iterator entry) {
    if (entry->liveKeys == 0 && !entry->logKept && !entry->openPopup)
        entries_.erase(entry);
}
