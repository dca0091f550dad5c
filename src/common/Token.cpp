#include "common/Token.h"

#include <algorithm>

#include "common/Utils.h"

namespace {

// Counts the tokens the way NextToken hands them out: each match of the delimiter ends one, the
// search goes on one character past the match, left-trimmed, and a non-empty rest is the last.
int32_t CountTokens(std::string text, const std::string& delimiter) {
    int32_t count = 0;
    size_t position;
    while ((position = text.find(delimiter)) != std::string::npos && position < text.size()) {
        ++count;
        text.erase(0, position + 1);
        TrimLeft(text, kWhitespace);
    }
    if (!text.empty())
        ++count;
    return count;
}

// Appends `piece`, trimmed of blanks, unless that leaves it empty; the item ends at its first
// NUL.
void AddItem(std::string piece, std::vector<std::string>& list) {
    Trim(piece, " ");
    if (piece.empty())
        return;
    list.emplace_back(piece.c_str());
}

}  // namespace

CToken::CToken(std::string& text, const std::string& delimiter)
    : m_TokenCount(0), m_TokenIndex(0), m_Delimiter(delimiter) {
    Trim(text, kWhitespace);
    m_Text = text;
    m_Remaining = text;
    m_TokenCount = CountTokens(m_Text, m_Delimiter);
}

CToken::~CToken() = default;

bool CToken::HasMoreTokens() {
    return m_TokenIndex < m_TokenCount;
}

std::string CToken::NextToken() {
    if (m_TokenIndex >= m_TokenCount)
        return std::string();
    std::string token;
    const size_t position = m_Remaining.find(m_Delimiter);
    if (position == std::string::npos) {
        token = m_Remaining;
    } else {
        token = m_Remaining.substr(0, position);
        m_Remaining.erase(0, std::min(position + 1, m_Remaining.size()));
        TrimLeft(m_Remaining, kWhitespace);
    }
    ++m_TokenIndex;
    Trim(token, kWhitespace);
    return token;
}

void CToken::SplitList(const std::string& text, const std::string& delimiter,
                       std::vector<std::string>& list) {
    list.clear();
    if (text.empty())
        return;
    if (delimiter.empty()) {
        list.emplace_back(text.c_str());
        return;
    }
    size_t start = 0;
    size_t found;
    while ((found = text.find(delimiter, start)) != std::string::npos) {
        AddItem(text.substr(start, found - start), list);
        start = found + 1;
    }
    AddItem(text.substr(start), list);
}

void CToken::SplitSet(const std::string& text, const std::string& delimiter,
                      std::set<std::string>& set) {
    set.clear();
    std::vector<std::string> list;
    SplitList(text, delimiter, list);
    set.insert(list.begin(), list.end());
}
