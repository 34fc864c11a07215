#ifndef VIDORA_TESTS_SUPPORT_SAMPLETABLE_H
#define VIDORA_TESTS_SUPPORT_SAMPLETABLE_H

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace Kavio::Support {

// The parts of a text between marks, without the blanks around them.
inline std::vector<std::string> SplitText(const std::string& text, char mark) {
    std::vector<std::string> parts;
    for (size_t at = 0; at <= text.size();) {
        const size_t end = std::min(text.find(mark, at), text.size());
        const std::string part = text.substr(at, end - at);
        const size_t first = part.find_first_not_of(' ');
        parts.push_back(first == std::string::npos ? "" : part.substr(first, part.find_last_not_of(' ') - first + 1));
        at = end + 1;
    }
    return parts;
}

// A text with `by` for each `what`.
inline std::string Replaced(std::string text, const std::string& what, const std::string& by) {
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + by.size())) {
        text.replace(at, what.size(), by);
    }
    return text;
}

// The whole numbers of a field, parted by blanks.
template <typename Number = int>
std::vector<Number> Numbers(const std::string& text) {
    std::istringstream in(text);
    return std::vector<Number>(std::istream_iterator<Number>(in), std::istream_iterator<Number>());
}

// The bytes for which "\r", "\n", "\xHH" and "{N}", for so many "x", stand in a text.
inline std::string Unescaped(const std::string& text) {
    std::string bytes;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '{') {
            bytes.append(std::stoul(text.substr(i + 1)), 'x');
            i = text.find('}', i);
        } else if (text[i] != '\\') {
            bytes += text[i];
        } else if (text[++i] == 'x') {
            bytes += static_cast<char>(std::stoi(text.substr(i + 1, 2), nullptr, 16));
            i += 2;
        } else {
            bytes += text[i] == 'r' ? '\r' : '\n';
        }
    }
    return bytes;
}

// The rows of one table in a file of samples: a line "[name]" begins a table, "#" a comment, "|" stands between the
// fields, of which every row has as many and at least two, and "\n" in a field is a line feed.
inline std::vector<std::vector<std::string>> ReadTable(const std::string& path, const std::string& name,
                                                       size_t fields) {
    std::vector<std::vector<std::string>> rows;
    std::ifstream file(path);
    std::string table;
    for (std::string line; std::getline(file, line);) {
        if (line[0] == '[' && line.find('|') == std::string::npos) {
            table = line.substr(1, line.size() - 2);
        } else if (table == name && line[0] != '#' && !line.empty()) {
            rows.push_back(SplitText(Replaced(line, "\\n", "\n"), '|'));
            EXPECT_EQ(fields, rows.back().size()) << line;
            rows.back().resize(fields);
        }
    }
    EXPECT_FALSE(rows.empty()) << name << " in " << path;
    return rows;
}

// What stands in front of the first blank, and behind it.
inline std::pair<std::string, std::string> SplitWord(const std::string& text) {
    const size_t blank = std::min(text.find(' '), text.size());
    return {text.substr(0, blank), text.substr(std::min(blank + 1, text.size()))};
}

// What is behind the name of a script's step: all of it, and if it begins with a number, that and what follows.
struct ScriptWords {
    explicit ScriptWords(const std::string& text)
        : all(text), number(atoi(text.c_str())), rest(SplitWord(text).second) {}
    std::string all;
    int number;
    std::string rest;
};

struct Script {
    std::string name;
    std::vector<std::string> lines;
};

// A file of scripts: a line "[name]" begins one, "#" a comment, each other line is a step.
inline std::vector<Script> ReadScripts(const std::string& path) {
    std::vector<Script> scripts;
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) {
        if (line[0] == '[') {
            scripts.push_back({line.substr(1, line.size() - 2), {}});
        } else if (!line.empty() && line[0] != '#') {
            scripts.back().lines.push_back(line);
        }
    }
    return scripts;
}

}  // namespace Kavio::Support

#endif  // VIDORA_TESTS_SUPPORT_SAMPLETABLE_H
