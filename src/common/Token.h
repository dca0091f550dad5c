// The text tokenizer of the message layer: cuts the agent's tower list and the configuration's
// lists into trimmed items.
//
// A CToken belongs to one thread and has no lock. The static SplitList and SplitSet keep no
// state and may run anywhere.
#ifndef TIDEWAY_COMMON_TOKEN_H_
#define TIDEWAY_COMMON_TOKEN_H_

#include <stdint.h>

#include <set>
#include <string>
#include <vector>

class CToken {
  public:
    // Trims blanks, CR, LF and TAB from both ends of `text`, in the caller's own string, and
    // counts its tokens. A trailing delimiter adds no empty token; an empty text has none.
    CToken(std::string& text, const std::string& delimiter);
    virtual ~CToken();

    // The next token, trimmed at both ends; the empty string once all have been handed out.
    // After a delimiter the rest is taken from one character past its start, so a delimiter
    // of several characters leaves its tail at the front of the next token. An empty delimiter
    // matches at once, giving an empty token and a step of one character.
    virtual std::string NextToken();
    virtual bool HasMoreTokens();

    int32_t GetTokenCount() const { return m_TokenCount; }

    // Clears `list` and fills it with the items of `text` between delimiters, each trimmed of
    // blanks at both ends, empty ones dropped, and each cut at its first NUL. An empty delimiter
    // gives the whole text as one item.
    static void SplitList(const std::string& text, const std::string& delimiter,
                          std::vector<std::string>& list);
    // The same into an ordered set: doubles fall away, the order is the set's.
    static void SplitSet(const std::string& text, const std::string& delimiter,
                         std::set<std::string>& set);

  private:
    int32_t m_TokenCount;
    int32_t m_TokenIndex;
    std::string m_Text;
    std::string m_Remaining;
    std::string m_Delimiter;
};

#endif  // TIDEWAY_COMMON_TOKEN_H_
