// What a page that connects late needs to show the plug-in's current state: the last "setup"
// notice, then the notices that still matter, in the order they came. An "update" notice
// matters while it sets some attribute or content that no later update sets again, or while it
// is one of the last kMaxLogNotices notices carrying message-history ("log") lines; a "popup"
// notice matters until a later pop-up notice with the same id replaces or disposes of it, except
// an error pop-up, which only the pages open when it comes show (nothing ever disposes of it).
// Not thread-safe: the web server uses it from its I/O thread only.
#ifndef TIDEWAY_TOOLS_TIDEWAY_HOST_NOTICECACHE_H_
#define TIDEWAY_TOOLS_TIDEWAY_HOST_NOTICECACHE_H_

#include <stddef.h>
#include <stdint.h>

#include <deque>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <vector>

class NoticeCache {
  public:
    // Whatever the caller wants to replay for a notice (the web server keeps its framed message).
    using Payload = std::shared_ptr<const std::string>;

    static constexpr size_t kMaxLogNotices = 100;

    enum class Outcome {
        kKept,         // a setup, update or pop-up notice, now part of the replay
        kDisposed,     // a pop-up's dispose: that pop-up left the replay, the dispose is not kept
        kNothingKept,  // an update that sets nothing (no control, state or log line), or an
                       // error pop-up
        kIgnored,      // not XML, not a brguiNotice, or a type other than setup, update, popup
    };

    // Takes one notice document as the plug-in delivered it.
    Outcome Add(const std::string& xml, Payload payload);

    // The payloads to replay: the setup notice (when one came), then the entries in order.
    std::vector<Payload> Replay() const;

  private:
    struct Entry {
        Payload payload;
        size_t liveKeys = 0;     // keys this entry is still the last to set
        bool logKept = false;    // among the last kMaxLogNotices carrying log lines
        bool openPopup = false;  // a pop-up notice not yet replaced or disposed of
    };
    using EntryList = std::list<Entry>;

    void Reset();
    void EraseIfUnused(EntryList::iterator entry);

    Payload setup_;
    EntryList entries_;                                  // updates and pop-ups, in arrival order
    std::map<std::string, EntryList::iterator> owners_;  // key -> the last entry that set it
    std::map<std::string, EntryList::iterator> popups_;  // pop-up id -> its open notice
    std::deque<EntryList::iterator> logEntries_;         // the kept log carriers, oldest first
};

#endif  // TIDEWAY_TOOLS_TIDEWAY_HOST_NOTICECACHE_H_
