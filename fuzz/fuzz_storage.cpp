// The storage text parsers on any bytes: /proc/mdstat for several array
// numbers, every line as a mount table entry, a progress line and the first
// bytes of a progress file, and a sysfs level.  Besides not crashing, each
// answer must stay inside what its callers rely on.
#include "kemo_text.hpp"

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace text = kemo::text;

namespace {

void check(bool ok)
{
    if (!ok)
        __builtin_trap();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const std::string_view bytes(reinterpret_cast<const char *>(data), size);

    for (const int md : {0, 1, 2, 3, 5, 12, -1}) {
        const bool listed = text::mdstat_lists(bytes, md);
        const text::MdSync sync = text::mdstat_sync(bytes, md);
        // Only an array that is listed can be syncing.
        check(listed || sync.state == text::MdSync::none);
        if (sync.state == text::MdSync::running)
            check(sync.percent >= 0.0f && sync.percent <= 100.0f);
        else
            check(sync.percent == 0.0f && !sync.recovery);
    }

    std::size_t pos = 0;
    while (pos <= bytes.size()) {
        const std::size_t nl = bytes.find('\n', pos);
        const std::string_view line = bytes.substr(pos, (nl == std::string_view::npos ? bytes.size() : nl) - pos);
        if (const auto entry = text::mount_line(line)) {
            check(!entry->device.empty() && !entry->dir.empty() && !entry->options.empty());
            const int id = text::volume_id_of_dir(entry->dir);
            check(id >= -1 && id <= 9);
        }
        if (const auto percent = text::fraction_percent(line))
            check(*percent >= 0 && *percent <= 100);
        if (nl == std::string_view::npos)
            break;
        pos = nl + 1;
    }

    // The grow progress files are read 8 bytes at a time.
    (void)text::leading_number(bytes.substr(0, 8));
    (void)text::leading_number(bytes);
    check(text::sysfs_level(bytes) >= -1);
    return 0;
}
