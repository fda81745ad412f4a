// Runs the scripts in transcripts/ and compares the events of each call, in order, with the record there:
// module calls with their templates, JNI calls, traces and the result.
//
// A script consists of calls (`> sign 0 data`), directives (`! fail C_Sign 1 0x30`), comments and blank
// lines. An argument is a number, `null`, a text, or `name=text` to give the text a name in the record.
// `#0aff` is a text in hexadecimal, `*9` is nine asterisks. The indented lines are the record of the call
// above them. A record that resembles an earlier one of the same entry point shows only the difference: `.. 5
// as above, to C_SignInit` replaces its first five lines. TRANSCRIPTS=write rewrites the records; check the
// difference before you commit it.

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <map>
#include <sstream>

#include "fixture.h"

namespace {

std::string content(const std::string& word) {
  if (word.starts_with('*')) return std::string(std::stoul(word.substr(1)), '*');
  if (!word.starts_with('#')) return word;
  std::string bytes;
  for (std::size_t i = 1; i < word.size(); i += 2) {
    bytes += static_cast<char>(std::stoi(word.substr(i, 2), nullptr, 16));
  }
  return bytes;
}

using Words = std::vector<std::string>;

Words split(const std::string& text) {
  std::istringstream words(text);
  return {std::istream_iterator<std::string>(words), {}};
}

std::string join(const Words& words, const char* between) {
  std::string all;
  for (const auto& word : words) all += (all.empty() ? "" : between) + word;
  return all;
}

/// Replaces each run of `least` or more equal words by the word and the length of the run.
Words countRepeats(const Words& words, std::ptrdiff_t least) {
  Words all;
  for (auto word = words.begin(); word != words.end();) {
    const auto next = std::find_if(word, words.end(), [&](const auto& other) { return other != *word; });
    if (next - word < least)
      all.insert(all.end(), word, next);
    else
      all.push_back(*word + ' ' + std::to_string(next - word) + " times");
    word = next;
  }
  return all;
}

Argument argument(const std::string& word) {
  if (word == "null") return {"null", std::nullopt};
  if (word == "MODULE") return {"path", MOCK_MODULE};
  if (word == "OTHER") return {"path", OTHER_MODULE};
  if (word == "LIBRARY") return {"path", NOT_A_MODULE};
  if (const auto equals = word.find('='); equals != std::string::npos) {
    return {word.substr(0, equals), content(word.substr(equals + 1))};
  }
  char* end = nullptr;
  const jlong number = std::strtol(word.c_str(), &end, 0);
  Argument result = {word, content(word)};
  if (*end == '\0') result.number = number;
  return result;
}

class Transcript : public Fixture, public testing::WithParamInterface<const char*> {
 protected:
  /// Makes a function return CKR_OK from now on, with `first` as its length or count in odd calls and
  /// `second` in even calls. C_FindObjects always returns the count `first` and the code `second`.
  void claim(const std::string& function, CK_ULONG first, CK_ULONG second) {
    module.onReturn = [=, isOdd = true](const std::string& line, CK_RV& result,
                                        const mock::Numbers& numbers) mutable {
      if (!line.starts_with(function + '(')) return;
      const bool isSearch = function == "C_FindObjects";
      result = isSearch ? second : CKR_OK;
      for (CK_ULONG* number : numbers)
        if (number == numbers.back() || function == "C_GetAttributeValue")
          *number = isOdd || isSearch ? first : second;
      isOdd = !isOdd;
    };
  }

  void follow(const Words& words) {
    const auto text = [&](std::size_t i) { return content(words.at(i)); };
    const auto number = [&](std::size_t i) { return std::stoul(words.at(i), nullptr, 0); };
    const std::map<std::string, std::function<void()>> directives = {
        {"unbound", [&] { begin(State::kUnbound); }},
        {"bound", [&] { begin(State::kBound); }},
        {"open", [&] { begin(State::kOpen); }},
        {"user", [&] { begin(State::kUser); }},
        {"fail", [&] { module.failAt(words.at(1), number(2), number(3)); }},
        {"certificate", [&] { module.addObject(CKO_CERTIFICATE, text(1), text(2), text(3)); }},
        {"publicKey", [&] { module.addObject(CKO_PUBLIC_KEY, text(1), text(2), text(3)); }},
        {"privateKey", [&] { module.addObject(CKO_PRIVATE_KEY, text(1), text(2), text(3)); }},
        {"data", [&] { module.addObject(CKO_DATA, "", "", text(1)); }},
        {"attribute", [&] { module.slots[0].objects.at(number(1) - 1).attributes[number(2)] = text(3); }},
        {"noSlots", [&] { module.slots.clear(); }},
        {"noMechanisms", [&] { module.slots[0].mechanisms.clear(); }},
        {"secondToken", [&] { module.slots[1].info.flags |= CKF_TOKEN_PRESENT; }},
        {"slotFlags", [&] { module.slots[0].info.flags = number(1); }},
        {"tokenFlags", [&] { module.slots[0].token.flags = number(1); }},
        {"mechanismFlags", [&] { module.slots[0].mechanisms.at(CKM_RSA_PKCS).flags = number(1); }},
        {"removeLast", [&] { module.slots[0].objects.pop_back(); }},
        {"noList", [&] { module.list = nullptr; }},
        {"freshLists", [&] { module.freshListEachTime = true; }},
        {"acceptsSecondInitialize", [&] { module.acceptsSecondInitialize = true; }},
        {"noFunctions", [&] { module.functions = {}; }},
        {"claims", [&] { claim(words.at(1), number(2), number(3)); }},
        // Follows another directive when the second search of a call begins.
        {"later",
         [&] {
           const std::size_t begun = module.calls["C_FindObjectsInit"];
           module.onCall = [this, begun,
                            then = Words(words.begin() + 1, words.end())](const std::string& line) {
             if (line.starts_with("C_FindObjectsInit") && module.calls["C_FindObjectsInit"] == begun + 1)
               follow(then);
           };
         }},
    };
    ASSERT_TRUE(directives.contains(words.at(0))) << "unknown directive: " << words.at(0);
    directives.at(words.at(0))();
  }

  /// The record as a script shows it. A line begins with a call and continues with traces, the further calls
  /// of the search or attribute read, dlclose, and further JNI calls. The name of a JNI call is left
  /// out if it repeats the previous one. A new array and its filling are one event. Repeated lines are
  /// counted.
  Words recordLines(const std::string& result) const {
    Words lines;
    std::string last;
    for (auto event = record.begin(); event != record.end(); ++event) {
      const bool isTrace = event->starts_with('"');
      const bool isJava = !isTrace && !event->starts_with("C_") && !event->starts_with("dl");
      const std::string name = isJava ? event->substr(0, event->find('(')) : "";
      const std::string filling = "], 0, " + event->substr(event->find('(') + 1);
      const bool isFilled = event + 1 != record.end() && event[1].ends_with(filling);
      const std::string text =
          (isJava && name == last ? event->substr(name.size()) : *event) + (isFilled ? " filled" : "");
      const std::string before = lines.empty() ? "" : lines.back();
      const bool isSecondRead = event->starts_with("C_GetAttributeValue(") && before.starts_with("C_GetAttr");
      const bool isNext = event->starts_with("C_FindObjects(") || event->starts_with("C_FindObjectsFinal(") ||
                          isSecondRead || *event == "dlclose()";
      const bool isContinued = !before.empty() && (isTrace || isNext || (isJava && !last.empty()));
      if (isContinued && lines.back().size() + text.size() < 108)
        lines.back() += ' ' + text;
      else
        lines.push_back(*event + (isFilled ? " filled" : ""));
      last = name;
      if (isFilled) ++event;
    }
    lines.push_back("= " + join(countRepeats(split(result), 9), " "));
    return countRepeats(lines, 2);
  }

  /// The text of a record. `above` is the longest record of the same entry point that a script has in full.
  /// If at least a third of the lines are the same at the beginning and end, only the others are written out.
  static std::string abbreviate(const Words& lines, Words& above) {
    const auto name = [](const std::string& line) { return line.substr(0, line.find('(')) + '\n'; };
    auto head = std::ranges::mismatch(lines, above).in1 - lines.begin();
    const auto rest = static_cast<std::ptrdiff_t>(std::min(lines.size(), above.size())) - head;
    auto tail = std::mismatch(lines.rbegin(), lines.rbegin() + rest, above.rbegin()).first - lines.rbegin();
    if (head == 1) head = 0;  // replacing one line saves nothing
    if (tail == 1) tail = 0;
    if (3 * (head + tail) < std::ssize(lines)) {
      if (lines.size() > above.size()) above = lines;
      return "  " + join(lines, "\n  ") + '\n';
    }
    std::string text;
    if (head > 0) text += "  .. " + std::to_string(head) + " as above, to " + name(lines.begin()[head - 1]);
    for (auto line = lines.begin() + head; line != lines.end() - tail; ++line) text += "  " + *line + '\n';
    if (tail > 0) text += "  .. " + std::to_string(tail) + " as above, from " + name(lines.end()[-tail]);
    return text;
  }

  /// Runs the script and returns it with the actual records.
  std::string play(std::istream& script) {
    std::string played;
    std::map<std::string, Words> above;
    for (std::string line; std::getline(script, line);) {
      if (line.starts_with(' ')) continue;
      played += line + '\n';
      if (!line.starts_with('!') && !line.starts_with('>')) continue;
      const Words words = split(line.substr(1));
      if (line.starts_with('!')) {
        follow(words);
      } else {
        Arguments arguments;
        std::transform(words.begin() + 1, words.end(), std::back_inserter(arguments), argument);
        const std::string result = call(words.at(0), arguments);
        played += abbreviate(recordLines(result), above[words.at(0)]);
      }
    }
    return played;
  }
};

TEST_P(Transcript, MatchesTheCalls) {
  const std::string path = std::string(TRANSCRIPTS) + '/' + GetParam() + ".txt";
  std::stringstream script;
  script << std::ifstream(path).rdbuf();
  const std::string played = play(script);
  if (std::getenv("TRANSCRIPTS") != nullptr) std::ofstream(path) << played;
  EXPECT_GT(played.size(), 100U);
  EXPECT_EQ(script.str(), played);
}

INSTANTIATE_TEST_SUITE_P(All, Transcript,
                         testing::Values("binding", "sessions", "information", "reading", "listing",
                                         "writing", "deletion", "signing", "lies"),
                         [](const auto& instance) { return std::string(instance.param); });

}  // namespace
