#include "tools/targetcli/CommandLine.h"

#include <charconv>
#include <sstream>
#include <string_view>

const BackstoreKind kFileBackstore = {.listed = "fileio", .plugin = "fileio"};
const BackstoreKind kBlockBackstore = {.listed = "block", .plugin = "iblock"};
const BackstoreKind kUserBackstore = {.listed = "user", .plugin = "user"};

namespace {

struct FormRow {
    Form form;
    const char* name;
    const BackstoreKind* kind;
    /// {T} target, {I} initiator, {H} handler, {O} object, {P} path, {C} configuration, {S} serial,
    /// {Z} size, {N} number of a LUN. One that stands twice must have the same value.
    const char* pattern;
};

const FormRow kForms[] = {
    {Form::kVersion, "version", nullptr, "--version"},
    {Form::kTargetCreate, "target create", nullptr, "/iscsi create {T}"},
    {Form::kTargetDelete, "target delete", nullptr, "/iscsi delete {T}"},
    {Form::kAclCreate, "ACL create", nullptr,
     "/iscsi/{T}/tpg1/acls create add_mapped_luns=false wwn={I}"},
    {Form::kMappingCreate, "mapping create", nullptr,
     "/iscsi/{T}/tpg1/acls/{I} create tpg_lun_or_backstore={N} mapped_lun={N}"},
    {Form::kMappingDelete, "mapping delete", nullptr,
     "/iscsi/{T}/tpg1/acls/{I} delete mapped_lun={N}"},
    {Form::kFileCreate, "file create", &kFileBackstore,
     "/backstores/fileio create file_or_dev={P} name={O} wwn={S}"},
    {Form::kBlockCreate, "block create", &kBlockBackstore,
     "/backstores/block create dev={P} name={O} wwn={S}"},
    {Form::kUserCreate, "user create", &kUserBackstore,
     "/backstores/user:{H} create cfgstring={C} name={O} size={Z} wwn={S}"},
    {Form::kBackstoreDelete, "file delete", &kFileBackstore, "/backstores/fileio delete name={O}"},
    {Form::kBackstoreDelete, "block delete", &kBlockBackstore, "/backstores/block delete name={O}"},
    {Form::kBackstoreDelete, "user delete", &kUserBackstore,
     "/backstores/user:{H} delete name={O}"},
    {Form::kLunCreate, "LUN create", &kFileBackstore,
     "/iscsi/{T}/tpg1/luns create storage_object=/backstores/fileio/{O}"},
    {Form::kLunCreate, "LUN create", &kFileBackstore,
     "/iscsi/{T}/tpg1/luns create storage_object=/backstores/fileio/{O} lun={N}"},
    {Form::kLunCreate, "LUN create", &kBlockBackstore,
     "/iscsi/{T}/tpg1/luns create storage_object=/backstores/block/{O}"},
    {Form::kLunCreate, "LUN create", &kBlockBackstore,
     "/iscsi/{T}/tpg1/luns create storage_object=/backstores/block/{O} lun={N}"},
    {Form::kLunCreate, "LUN create", &kUserBackstore,
     "/iscsi/{T}/tpg1/luns create storage_object=/backstores/user:{H}/{O}"},
    {Form::kLunCreate, "LUN create", &kUserBackstore,
     "/iscsi/{T}/tpg1/luns create storage_object=/backstores/user:{H}/{O} lun={N}"},
    {Form::kLunDelete, "LUN delete", nullptr, "/iscsi/{T}/tpg1/luns delete lun={N}"},
    {Form::kLunList, "LUN list", nullptr, "/iscsi/{T}/tpg1/luns ls"},
};

bool OnlyOf(const char* alphabet, std::string_view text) {
    return !text.empty() && text.find_first_not_of(alphabet) == std::string_view::npos;
}

// Narrower than what targetcli takes: a date and a domain of two labels, in lower case.
bool IsIscsiName(std::string_view text) {
    constexpr std::string_view kShape = "iqn.0000-00.";
    constexpr size_t kMonth = 9;
    for (size_t i = 0; i < kShape.size(); ++i)
        if (i >= text.size() ||
            (kShape[i] == '0' ? text[i] < '0' || text[i] > '9' : text[i] != kShape[i]))
            return false;
    const std::string_view month = text.substr(kMonth, 2);
    const std::string_view rest = text.substr(kShape.size());
    const std::string_view domain = rest.substr(0, rest.find(':'));
    return month >= "01" && month <= "12" && domain.size() > 2 &&
           domain.substr(1, domain.size() - 2).find('.') != std::string_view::npos &&
           OnlyOf("abcdefghijklmnopqrstuvwxyz0123456789.:-", rest) && !rest.ends_with(':');
}

#define LETTERS "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789"
bool IsName(std::string_view text) {
    return OnlyOf(LETTERS "_-", text);
}
bool IsObject(std::string_view text) {
    return OnlyOf(LETTERS "_.-", text) && text[0] != '.';
}
bool IsPath(std::string_view text) {
    return OnlyOf(LETTERS "_.-/", text) && text[0] == '/';
}
#undef LETTERS

struct ValueRow {
    char letter;
    std::string CommandLine::*field;
    size_t longest;
    bool (*plain)(std::string_view text);
};
const ValueRow kValues[] = {
    {'T', &CommandLine::target, 223, IsIscsiName}, {'I', &CommandLine::initiator, 223, IsIscsiName},
    {'H', &CommandLine::handler, 64, IsName},      {'O', &CommandLine::object, 128, IsObject},
    {'P', &CommandLine::path, 255, IsPath},        {'C', &CommandLine::config, 128, IsName},
    {'S', &CommandLine::serial, 200, IsName},
};

struct NumberRow {
    char letter;
    std::optional<uint64_t> CommandLine::*field;
    uint64_t highest;
};
const NumberRow kNumbers[] = {
    {'N', &CommandLine::number, 255},
    {'Z', &CommandLine::size, uint64_t{1} << 62},
};

bool TakeNumber(const NumberRow& row, std::string_view text, CommandLine& line) {
    uint64_t value = 0;
    const auto [end, failure] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (failure != std::errc() || value > row.highest || text != std::to_string(value))
        return false;
    std::optional<uint64_t>& field = line.*row.field;
    if (field && *field != value)
        return false;
    field = value;
    return true;
}

bool TakeValue(char letter, std::string_view text, CommandLine& line) {
    for (const NumberRow& row : kNumbers)
        if (row.letter == letter)
            return TakeNumber(row, text, line);
    for (const ValueRow& row : kValues) {
        if (row.letter != letter)
            continue;
        line.*row.field = text;
        return text.size() <= row.longest && row.plain(text);
    }
    return false;
}

// A value reaches up to the character that follows its place in the pattern.
bool MatchesWord(std::string_view pattern, std::string_view word, CommandLine& line) {
    while (!pattern.empty()) {
        if (pattern[0] != '{') {
            if (word.empty() || word[0] != pattern[0])
                return false;
            pattern.remove_prefix(1);
            word.remove_prefix(1);
            continue;
        }
        const char letter = pattern[1];
        pattern.remove_prefix(3);
        const size_t end = pattern.empty() ? word.size() : word.find(pattern[0]);
        if (end == std::string_view::npos || !TakeValue(letter, word.substr(0, end), line))
            return false;
        word.remove_prefix(end);
    }
    return word.empty();
}

bool Matches(const FormRow& row, const std::vector<std::string>& arguments, CommandLine& line) {
    line = {};
    line.form = row.form;
    line.name = row.name;
    line.kind = row.kind;
    std::istringstream words(row.pattern);
    auto argument = arguments.begin();
    for (std::string word; words >> word; ++argument)
        if (argument == arguments.end() || !MatchesWord(word, *argument, line))
            return false;
    return argument == arguments.end();
}

}  // namespace

std::optional<CommandLine> CommandLine::Parse(const std::vector<std::string>& arguments) {
    CommandLine line;
    for (const FormRow& row : kForms)
        if (Matches(row, arguments, line))
            return line;
    return std::nullopt;
}
