// Replaces a file's contents so that a reader, a crash or a full disk sees either the old
// contents or the new ones, never a truncated mix. One object serves one writing thread; it owns
// the stream it hands out, the temporary file behind it and a descriptor of the old file.
#ifndef TIDEWAY_COMMON_FILEREPLACEMENT_H_
#define TIDEWAY_COMMON_FILEREPLACEMENT_H_

#include <stdio.h>
#include <sys/types.h>

#include <string>

class CFileReplacement {
  public:
    explicit CFileReplacement(const std::string& path);
    // Discards the new contents unless Commit succeeded.
    ~CFileReplacement();
    CFileReplacement(const CFileReplacement&) = delete;
    CFileReplacement& operator=(const CFileReplacement&) = delete;

    // A stream for the new contents, or null (errno set) when no file can be written. An existing
    // file is first opened for writing, untruncated: where that fails, Open fails with the same
    // error, so a replacement never changes a file that its writer could not have overwritten
    // (a read-only file, another user's file in a folder anybody may write). The new contents go
    // to a temporary file beside the target (the target of a symbolic link, so the link stays a
    // link), which takes the old file's owner and mode; temporary files that an ended process
    // left beside the target are removed. A target that is not a regular file (a device), one
    // whose owner, mode or access list the new file cannot take, or one beside which no file can
    // be created, is written in place, truncated, as the last resort.
    FILE* Open();
    // Flushes the stream to disk and moves the new file over the old one, provided the name still
    // leads to the file that Open checked (or, for a new file, is still free). False when
    // anything failed; the old contents then stay as they were (except in the last-resort case).
    bool Commit();
    // Drops the new contents and leaves the old file as it was.
    void Discard();

  private:
    // Makes the temporary file for the checked old file (or for a new file when m_TargetFd is
    // -1). Null when none can be made that stands in for the old one.
    FILE* OpenTemporary(const struct stat* old);
    // Writes in place: through m_TargetFd, truncated, or by creating the target.
    FILE* OpenInPlace();
    bool MoveIntoPlace();

    std::string m_Target;     // the file being replaced
    std::string m_Temporary;  // empty when writing in place
    FILE* m_pStream = nullptr;
    // The old file opened for writing, held until the rename so that its inode cannot be reused
    // and Commit can tell whether the name still leads to it; -1 for a new file.
    int m_TargetFd = -1;
};

#endif  // TIDEWAY_COMMON_FILEREPLACEMENT_H_
