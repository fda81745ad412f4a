// Plays the scripts in transcripts/ and compares all that happens, in its order, with what they say: for each
// call the module's calls with their templates, the virtual machine's, every trace, and the answer.
//
// A script is made of calls (`> sign 0 data`), stage directions (`! fail C_Sign 1 0x30`), comments and blank
// lines. An argument is a number, `null`, a text, or `name=text` where the record shall call it by name;
// `#0aff` is a text in hexadecimal, `*9` one of nine asterisks. The indented lines are the record: all of it,
// or how it departs from the longest record of the same entry point that stands in full above (`.. 5 as
// above, to C_SignInit`: its first five lines). With TRANSCRIPTS=write they are written anew, to be read in
// the difference before they are committed.

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

std::string joined(const Words& words, const char* between) {
  std::string all;
  for (const auto& word : words) all += (all.empty() ? "" : between) + word;
  return all;
}

/// The same words, but one that stands there this often in a row, or more often, is counted.
Words counted(const Words& words, std::ptrdiff_t least) {
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
  /// From now on a function succeeds and claims this length or count in its first call, that one in its
  /// second, and so on; C_FindObjects claims to have found so many, with the second number for its result.
  void claim(const std::string& function, CK_ULONG first, CK_ULONG second) {
    module.onAnswer = [=, odd = true](const std::string& line, CK_RV& result,
                                      const mock::Numbers& numbers) mutable {
      if (!line.starts_with(function + '(')) return;
      const bool isSearch = function == "C_FindObjects";
      result = isSearch ? second : CKR_OK;
      for (CK_ULONG* number : numbers)
        if (number == numbers.back() || function == "C_GetAttributeValue")
          *number = odd || isSearch ? first : second;
      odd = !odd;
    };
  }

  void direct(const Words& words) {
    const auto text = [&](std::size_t i) { return content(words.at(i)); };
    const auto number = [&](std::size_t i) { return std::stoul(words.at(i), nullptr, 0); };
    const std::map<std::string, std::function<void()>> directions = {
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
        // When the second search of a call begins.
        {"later",
         [&] {
           const std::size_t begun = module.calls["C_FindObjectsInit"];
           module.onCall = [this, begun,
                            then = Words(words.begin() + 1, words.end())](const std::string& line) {
             if (line.starts_with("C_FindObjectsInit") && module.calls["C_FindObjectsInit"] == begun + 1)
               direct(then);
           };
         }},
    };
    ASSERT_TRUE(directions.contains(words.at(0))) << "no such direction: " << words.at(0);
    directions.at(words.at(0))();
  }

  /// The record as a script shows it. Traces stand behind the call that they follow, and so do the further
  /// calls of a search, the second of a read, an unloading, and the virtual machine's in a row, where one of
  /// the same name is not named again. A new array and its filling are one event. What is said several times
  /// is counted.
  Words lines(const std::string& answer) const {
    Words shown;
    std::string last;
    for (auto event = record.begin(); event != record.end(); ++event) {
      const bool isTrace = event->starts_with('"');
      const bool isJava = !isTrace && !event->starts_with("C_") && !event->starts_with("dl");
      const std::string name = isJava ? event->substr(0, event->find('(')) : "";
      const std::string filling = "], 0, " + event->substr(event->find('(') + 1);
      const bool isFilled = event + 1 != record.end() && event[1].ends_with(filling);
      const std::string text =
          (isJava && name == last ? event->substr(name.size()) : *event) + (isFilled ? " filled" : "");
      const std::string before = shown.empty() ? "" : shown.back();
      const bool isSecondRead = event->starts_with("C_GetAttributeValue(") && before.starts_with("C_GetAttr");
      const bool isNext = event->starts_with("C_FindObjects(") || event->starts_with("C_FindObjectsFinal(") ||
                          isSecondRead || *event == "dlclose()";
      const bool isBehind = !before.empty() && (isTrace || isNext || (isJava && !last.empty()));
      if (isBehind && shown.back().size() + text.size() < 108)
        shown.back() += ' ' + text;
      else
        shown.push_back(*event + (isFilled ? " filled" : ""));
      last = name;
      if (isFilled) ++event;
    }
    shown.push_back("= " + joined(counted(split(answer), 9), " "));
    return counted(shown, 2);
  }

  /// What is told of a record: all of it; or, where a third of it is as in the longest of the same entry
  /// point that stands in full above, how far it begins and ends like that one, and what is between.
  static std::string told(const Words& shown, Words& above) {
    const auto name = [](const std::string& line) { return line.substr(0, line.find('(')) + '\n'; };
    auto head = std::ranges::mismatch(shown, above).in1 - shown.begin();
    const auto most = static_cast<std::ptrdiff_t>(std::min(shown.size(), above.size())) - head;
    auto tail = std::mismatch(shown.rbegin(), shown.rbegin() + most, above.rbegin()).first - shown.rbegin();
    if (head == 1) head = 0;  // as long as what would stand for it
    if (tail == 1) tail = 0;
    if (3 * (head + tail) < std::ssize(shown)) {
      if (shown.size() > above.size()) above = shown;
      return "  " + joined(shown, "\n  ") + '\n';
    }
    std::string text;
    if (head > 0) text += "  .. " + std::to_string(head) + " as above, to " + name(shown.begin()[head - 1]);
    for (auto line = shown.begin() + head; line != shown.end() - tail; ++line) text += "  " + *line + '\n';
    if (tail > 0) text += "  .. " + std::to_string(tail) + " as above, from " + name(shown.end()[-tail]);
    return text;
  }

  /// What the script says, with the records as they come out.
  std::string play(std::istream& script) {
    std::string played;
    std::map<std::string, Words> above;
    for (std::string line; std::getline(script, line);) {
      if (line.starts_with(' ')) continue;
      played += line + '\n';
      if (!line.starts_with('!') && !line.starts_with('>')) continue;
      const Words words = split(line.substr(1));
      if (line.starts_with('!')) {
        direct(words);
      } else {
        Arguments arguments;
        std::transform(words.begin() + 1, words.end(), std::back_inserter(arguments), argument);
        const std::string answer = call(words.at(0), arguments);
        played += told(lines(answer), above[words.at(0)]);
      }
    }
    return played;
  }
};

TEST_P(Transcript, IsWhatHappens) {
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
