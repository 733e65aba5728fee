// The text form of the event logs: event sentences from the catalogue of
// the reader's language (cached process-wide), type names, times, and the
// text line of one record.
#include "kemo_io.hpp"
#include "kemosection.hpp"
#include "kemo_log.hpp"

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>
#include <string_view>

extern "C" {
KEMO_API PKLIBSZHASH gpshEvent = nullptr;
}

namespace {

using kemo::fail;
using namespace kemo::eventlog;

constexpr char kTexts[] = "/usr/kemo/kemosdk/texts/";
constexpr char kTypeSection[] = "11000000";
constexpr int kEventCacheSize = 2048;

std::string events_path(std::string_view language)
{
    return std::string(kTexts) + std::string(language) + "/events";
}

std::string hex_id(uint32_t id)
{
    char text[12];
    std::snprintf(text, sizeof text, "%X", id);
    return text;
}

// Frees a temporary hash.
struct HashFree {
    void operator()(PKLIBSZHASH h) const noexcept { KLIBSzHashFree(h); }
};
using HashPtr = std::unique_ptr<KLIBSZHASH, HashFree>;

// The catalogue text of event_id, through the process-wide cache; null for
// an unknown event (which is cached empty, so the file is not read for it
// again).
const char *event_text(uint32_t event_id, std::string_view language)
{
    const std::string key = hex_id(event_id);
    if (gpshEvent == nullptr) {
        gpshEvent = PshKLIBSzHashAlloc(kEventCacheSize);
        if (gpshEvent == nullptr) {
            KEMO_LOG("malloc event hash failed");
            return nullptr;
        }
    } else if (const char *cached = SzKLIBSzHashGetValue(gpshEvent, key.c_str())) {
        return *cached != '\0' ? cached : nullptr;
    }
    const std::string section = hex_id(event_id & ~0xFFFFFu);
    const std::string path = events_path(language);
    HashPtr loaded(PshKLIBSzHashAlloc(kEventCacheSize));
    if (!loaded)
        return nullptr;
    PKLIBSZHASH raw = loaded.release();
    const int pairs = kemo::sections::get_section(path.c_str(), section, &raw);
    loaded.reset(raw);
    if (pairs <= 0) {
        KEMO_LOG("section %s not found in %s", section.c_str(), path.c_str());
        // A catalogue without the section does not know the event; a
        // catalogue that cannot be read may appear later.
        if (pairs == 0)
            KLIBSzHashSetValue(&gpshEvent, key.c_str(), "");
        return nullptr;
    }
    for (int i = 0; i < raw->nSlot; ++i) {
        const KLIBSZHASHSLOT &slot = raw->rgSlot[i];
        if (slot.pszKey != nullptr && KLIBSzHashSetValue(&gpshEvent, slot.pszKey, slot.pszValue) < 0)
            return nullptr;
    }
    const char *text = SzKLIBSzHashGetValue(gpshEvent, key.c_str());
    if (text == nullptr) {
        KLIBSzHashSetValue(&gpshEvent, key.c_str(), "");
        KEMO_LOG("event %s not found in %s", key.c_str(), section.c_str());
        return nullptr;
    }
    return *text != '\0' ? text : nullptr;
}

// The text with "@1".."@4" replaced by the arguments that are not empty.
// One pass over the catalogue text: a placeholder inside an argument stays
// as it is.
std::string fill_placeholders(std::string_view text, const std::array<std::string_view, 4> &args)
{
    std::string out;
    out.reserve(text.size() + args[0].size() + args[1].size() + args[2].size() + args[3].size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '@' && i + 1 < text.size() && text[i + 1] >= '1' && text[i + 1] <= '4' &&
            !args[static_cast<std::size_t>(text[i + 1] - '1')].empty()) {
            out += args[static_cast<std::size_t>(text[i + 1] - '1')];
            ++i;
        } else {
            out += text[i];
        }
    }
    return out;
}

// "11000001".."11000003" for the types 1..3, "11000000" for the rest.
std::string type_key(int type)
{
    return type >= 1 && type <= 3 ? "1100000" + std::to_string(type) : kTypeSection;
}

std::string type_name(int type, std::string_view language)
{
    std::string name = "Unknown";
    HashPtr names(PshKLIBSzHashAlloc(512));
    if (!names)
        return name;
    PKLIBSZHASH raw = names.release();
    kemo::sections::get_section(events_path(language).c_str(), kTypeSection, &raw);
    names.reset(raw);
    if (const char *value = SzKLIBSzHashGetValue(raw, type_key(type).c_str()))
        name = value;
    return name;
}

// Type names already looked up by one reading of a log.

// Reads fields of a record body in order, never past its end.
class Fields {
public:
    Fields(const unsigned char *body, int size) : at_(body), left_(size) {}
    bool u16(uint16_t &v) { return take(2) && (v = get_u16(at_ - 2), true); }
    bool u32(uint32_t &v) { return take(4) && (v = get_u32(at_ - 4), true); }
    bool text(uint16_t n, std::string &v)
    {
        return take(n) && (v.assign(reinterpret_cast<const char *>(at_ - n), n), true);
    }

private:
    bool take(int n)
    {
        if (left_ - n < 0)
            return false;
        left_ -= n;
        at_ += n;
        return true;
    }
    const unsigned char *at_;
    int left_;
};


} // namespace

namespace kemo::eventlog {

bool valid_language(std::string_view language)
{
    if (language.empty() || language.size() > 32)
        return false;
    return std::all_of(language.begin(), language.end(), [](char c) {
        return std::isalnum(static_cast<unsigned char>(c)) || c == '_' || c == '-';
    });
}

const std::string &TypeNames::get(int type, std::string_view language)
{
    const std::string key = type_key(type);
    auto it = by_key.find(key);
    if (it == by_key.end())
        it = by_key.emplace(key, type_name(type, language)).first;
    return it->second;
}

// Prints the text line of one record body; nothing for a truncated body or
// an unknown event.
Spread spread(FILE *out, const unsigned char *body, int size, const char *language, TypeNames &types)
{
    Fields f(body, size);
    uint16_t type = 0, lengths[6] = {};
    uint32_t when = 0, event_id = 0;
    std::string texts[6]; // source, user, arguments 1-4
    if (!f.u16(type) || !f.u32(when) || !f.u16(lengths[0]) || !f.u16(lengths[1]) || !f.u32(event_id))
        return Spread::truncated;
    for (int i = 2; i < 6; ++i)
        if (!f.u16(lengths[i]))
            return Spread::truncated;
    for (int i = 0; i < 6; ++i)
        if (!f.text(lengths[i], texts[i]))
            return Spread::truncated;
    const std::string id = hex_id(event_id);
    const char *text = event_text(event_id, language);
    if (text == nullptr) {
        KEMO_LOG("Can not get the log szEvent id = %s, szLang = %s, szArg1 = [%s], szArg2 = [%s], "
                 "szArg3 = [%s], szArg4 = [%s], szSource = %s",
                 id.c_str(), language, texts[2].c_str(), texts[3].c_str(), texts[4].c_str(),
                 texts[5].c_str(), texts[0].c_str());
        return Spread::unknown;
    }
    const std::string sentence = fill_placeholders(text, {texts[2], texts[3], texts[4], texts[5]});
    const int printed =
        std::fprintf(out, "%d\t%s\t%s\t%s\t%s\t%s\n", static_cast<int>(type),
                     types.get(type & 0xFF, language).c_str(), time_text(when).c_str(),
                     texts[0].c_str(), texts[1].c_str(), sentence.c_str());
    return printed < 0 ? Spread::failed : Spread::printed;
}

std::string time_text(int64_t seconds)
{
    char text[32] = "";
    const time_t when = static_cast<time_t>(seconds);
    struct tm tm;
    if (::localtime_r(&when, &tm) != nullptr)
        std::strftime(text, sizeof text, "%Y/%m/%d %H:%M:%S", &tm);
    return text;
}

char *event_sentence(uint32_t event_id, const char *language, const std::array<const char *, 4> &args)
{
    const char *text = event_text(event_id, language);
    if (text == nullptr)
        return nullptr;
    const auto arg = [](const char *a) { return std::string_view(a != nullptr ? a : ""); };
    const std::string sentence = fill_placeholders(text, {arg(args[0]), arg(args[1]), arg(args[2]), arg(args[3])});
    char *out = static_cast<char *>(std::malloc(sentence.size() + 1));
    if (out == nullptr)
        return fail<char *>(nullptr, ERR_OUT_OF_MEMORY);
    std::memcpy(out, sentence.c_str(), sentence.size() + 1);
    return out;
}

int spread_record(FILE *out, const unsigned char *body, int size, const char *language)
{
    TypeNames types;
    switch (spread(out, body, size, language, types)) {
    case Spread::truncated: return fail(-1, ERR_FORMAT_ERROR);
    case Spread::failed: return fail(-1, ERR_WRITE_FAILED);
    default: return 0;
    }
}

} // namespace kemo::eventlog

extern "C" {

KEMO_API char *KEMOLogConvertTime1(int64_t seconds)
{
    static char text[32];
    text[0] = '\0';
    kemo::edge_void([&] { std::snprintf(text, sizeof text, "%s", time_text(seconds).c_str()); });
    return text;
}

KEMO_API char *KEMOLogConvertType(int type, const char *language)
{
    static char name[256];
    std::strcpy(name, "Unknown");
    if (language == nullptr)
        language = "enu";
    if (!valid_language(language))
        return name;
    kemo::edge_void([&] { std::snprintf(name, sizeof name, "%s", type_name(type, language).c_str()); });
    return name;
}

KEMO_API char *KEMOLogConvertEventKey(uint32_t eventId, const char *language, const char *arg1,
                                      const char *arg2, const char *arg3, const char *arg4)
{
    if (language == nullptr)
        language = "enu";
    if (!valid_language(language))
        return fail<char *>(nullptr, ERR_BAD_PARAMETERS);
    return kemo::edge<char *>(nullptr, [&] { return event_sentence(eventId, language, {arg1, arg2, arg3, arg4}); });
}

KEMO_API int KEMOLogEventSpread(FILE *out, const unsigned char *body, const char *language, int size)
{
    if (language == nullptr)
        language = "enu";
    if (out == nullptr || body == nullptr || size < 0 || !valid_language(language))
        return fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return spread_record(out, body, size, language); });
}

} // extern "C"
