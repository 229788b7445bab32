#include "bus_mk_str.h"

#include <gtest/gtest.h>

namespace {

std::string repeated(const std::string &text, int times) {
    std::string all;
    for (; times > 0; --times) {
        all += text;
    }
    return all;
}

// "first..last" or "none", and the "at+length" of each capture.
std::string find(const std::string &pattern, const std::string &text) {
    bus_mk_str_result result{};
    result.captures = 1; // which a search clears
    const int found = bus_mk_str_find(text.c_str(), pattern.c_str(), &result);
    std::string told = std::to_string(result.pos_start) + ".." + std::to_string(result.pos_end);
    for (int i = 0; i < result.captures; ++i) {
        const auto at = std::to_string(result.p[i] - text.c_str());
        told += ' ' + at + '+' + std::to_string(result.len[i]);
    }
    return found != -1 || told != "0..0" ? told : "none";
}

using Case = std::tuple<std::string, std::string, std::string>; // pattern, text, what is found

const std::vector<Case> kShort = {
    {"abc", "xxabcxx", "2..4"}, {"abd", "xxabcxx", "none"},   {"", "any", "0..-1"},
    {"x)", "ax)b", "1..2"},     {"^h", "hello", "0..0"},      {"^h", "ahello", "none"},
    {"^", "", "0..-1"},         {"lo$", "hello", "3..4"},     {"$", "hello", "5..4"},
    {"a$b", "a$b", "0..2"},     {"b^", "ab^", "1..2"},        {"(a", "xa", "1..1"},
    {"()a%1", "aa", "none"},    {"(a+)%1b", "ab", "none"},    {"a*", "baaa", "0..-1"},
    {"a+a", "aaa", "0..2"},     {"xa?a", "xa", "0..1"},       {"*", "2*3", "1..1"},
    {"a-", "aa", "0..-1"},      {"^a-$", "aa", "0..1"},       {"^a?a?$", "aaa", "none"},
    {"%b''", "x'a'b'", "1..3"}, {"%b()", "((a", "none"},      {"%f[%z]", "abc", "3..2"},
    {"%f[a]", "ba", "1..0"},    {"%f[a]a$", "xaba", "3..3"},  {"a.", "a", "none"},
    {"[a]", "[", "none"},       {"%p", "a", "none"},          {"[]]", "a]b", "1..1"},
    {"[a-]", "x-y", "1..1"},    {"[^%d]", "12d", "2..2"},     {"[^]]", "]a", "1..1"},
    {"[%]b]+", "a]b", "1..2"},  {"[%D1]+", "0a1b", "1..3"},   {"[^a]", "a", "none"},
    {"%%%g.", "50%g%", "2..4"}, {"%b()", "()", "0..1"},       {"%U%U", "aXb", "none"},
    {"%a", "\xe9", "none"},     {"%d%w%u", "xaB1aB", "3..5"}, {"%c%l%U", "ab1\tb1", "3..5"},
    {"(a)*", "a*", "0..1 0+1"}, {"(a*)b", "b", "0..0 0+0"},   {"%b()", "x(a(b))y", "1..6"},
    {"%S%A%s", "a. ", "0..2"},  {"%x%X", "gfz", "1..2"},      {"[b-\xfe]", "a\xff\xc3", "2..2"},
    {"%f[^%z]", "ab", "0..-1"}, {"a%f[a]", "aa", "none"},     {"[a-%%]", "%", "0..0"},
    {"%Z", "a", "0..0"}};

// A search that goes deeper with each item or character, or has no end, ends the program.
TEST(Str, patterns_find_what_they_describe_and_have_an_end) {
    const std::string words = repeated("key_1, value.x ", 4400);
    const std::string run(66000, 'a');
    std::vector<Case> cases = {
        {"((a*)(a)b)(.-)%3", "aaabca", "0..5 0+4 0+2 2+1 4+1"},
        {repeated("(a?)", 32), "a", "0..0 0+1" + repeated(" 1+0", 31)},
        {repeated("()", 32) + "(a)", "a", "none"},
        {repeated("(a?", 32) + repeated(")a?", 32) + "b", run.substr(60000), "none"},
        {repeated("a?", 100000), "aa", "0..1"},
        {"<(%a+)>.-</%1>", "<b>" + run + "<i>x</i>", "66003..66010 66004+1"},
        {"%a-(x+)%1y", run + ",xxy", "66001..66003 66001+1"},
        {"%b().", repeated("(", 1000000) + "(())x", "1000000..1000004"},
        {"^.*%b()y", "(a)y((((", "0..3"},
        {"[%w_.]+@[%w.]+", words + run + ",me@host", "132001..132007"},
        {"(.*),(.*);%d", words + ";1", "0..66001 0+65990 65991+9"}};
    cases.insert(cases.end(), kShort.begin(), kShort.end());
    // In front of each stands what would already match, or never does: neither makes it sound.
    for (const char *end : {"%",    "[",    "[^",   "[a",   "[]",    "[^]", "[%]",  "[a-",  "[a%",
                            "%)a)", "())",  "%b",   "%bx",  "%f",    "%fa", "%f[",  "%f[a", "%0",
                            "%1",   "(%1)", "()%2", "(a%1", "(a)%2", "a*)", "(a))", "%9"}) {
        for (const char *front : {"", "a-", "^", "q"}) {
            cases.push_back({std::string{front} + end, "aa", "none"});
        }
    }
    for (const auto &[pattern, text, found] : cases) {
        EXPECT_EQ(find(pattern, text), found) << pattern.substr(0, 80) << ' ' << text.substr(0, 80);
    }
    bus_mk_str_result result;
    EXPECT_EQ(bus_mk_str_find(nullptr, "a", &result) + bus_mk_str_find("a", nullptr, &result), -2);
    EXPECT_EQ(bus_mk_str_find("a", "a", nullptr), -1);
}

} // namespace
