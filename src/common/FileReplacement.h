// Replaces a file's contents so that a reader, a crash or a full disk sees either the old
// contents or the new ones, never a truncated mix. One object serves one writing thread; it owns
// the stream it hands out and the temporary file behind it.
#ifndef TIDEWAY_COMMON_FILEREPLACEMENT_H_
#define TIDEWAY_COMMON_FILEREPLACEMENT_H_

#include <stdio.h>

#include <string>

class CFileReplacement {
  public:
    explicit CFileReplacement(const std::string& path);
    // Discards the new contents unless Commit succeeded.
    ~CFileReplacement();
    CFileReplacement(const CFileReplacement&) = delete;
    CFileReplacement& operator=(const CFileReplacement&) = delete;

    // A stream for the new contents, or null (errno set) when no file can be written. The new
    // contents go to a temporary file beside the target (the target of a symbolic link, so the
    // link stays a link), which takes the old file's owner and mode. A target that is not a
    // regular file (a device), or one beside which no file can be created, is opened for
    // writing itself, truncated, as the last resort.
    FILE* Open();
    // Flushes the stream to disk and moves the new file over the old one. False when anything
    // failed; the old contents then stay as they were (except in the last-resort case).
    bool Commit();
    // Drops the new contents and leaves the old file as it was.
    void Discard();

  private:
    std::string m_Target;     // the file being replaced
    std::string m_Temporary;  // empty when writing in place
    FILE* m_pStream = nullptr;
};

#endif  // TIDEWAY_COMMON_FILEREPLACEMENT_H_
