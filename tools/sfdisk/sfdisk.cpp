// sfdisk - the appliance's partitioning tool: the command line, its checks
// and the dispatch to the table operations (sfdisk_table.cpp).
#include "sfdisk.hpp"

#include <getopt.h>

#include <charconv>
#include <cstdio>
#include <exception>
#include <limits>
#include <new>
#include <string_view>

namespace sfdisk {

const char *usage_text()
{
    return "usage: sfdisk -N n [-uS] [-q] [-f] [-F] [--no-reread] [-j gap] -z size [-t type] DEVICE\n"
           "       sfdisk -N n [-q] [-f] [-F] [--no-reread] [-o0] [-z0] [-t0] -D DEVICE\n"
           "       sfdisk -M1 [-q] [-f] [--no-reread] DEVICE\n"
           "       sfdisk -l [-uS] [-q] [-N n] DEVICE\n"
           "       sfdisk -h | --help\n"
           "\n"
           "Edits the four primary entries of a DOS partition table in exact sectors\n"
           "(no alignment, no rounding).  DEVICE is a whole-disk block device or an\n"
           "image file.\n"
           "\n"
           "  -N n         the entry, 1 to 4\n"
           "  -z size      create entry n (replacing an entry n that exists) with\n"
           "               this many sectors; -z-1: up to the last sector of the\n"
           "               disk (at most sector 4294967295, the last a DOS table\n"
           "               can address)\n"
           "  -j gap       sectors left free before the new entry: it starts at the\n"
           "               end of the nearest used lower entry + 1 + gap, or at gap\n"
           "               when there is none (default 0; sector 0 is never given)\n"
           "  -t type      the type in hexadecimal, 1 to ff (default 83)\n"
           "  -D           delete entry n; an absent entry is success, nothing written\n"
           "  -M1          write a fresh empty DOS table over any table, erasing the\n"
           "               signatures of other tables and file systems on the device\n"
           "  -l           list entry n, or every used entry, one line each:\n"
           "               \"device start size type\" (decimal sectors, hex type)\n"
           "  -F           a disk without any partition table gets a fresh empty DOS\n"
           "               table first (nothing else is erased); without -F it is\n"
           "               refused; a table of another kind is always refused\n"
           "  -f           proceed where the tool would only warn: the disk is in\n"
           "               use, entry n exists (-z), the table cannot address the\n"
           "               whole disk, the disk holds a file-system signature (-F)\n"
           "  -q           no information or warnings; errors are still reported\n"
           "  -uS          units are sectors (the only unit)\n"
           "  -o0          accepted, no effect\n"
           "  --no-reread  do not tell the kernel about the new table\n"
           "\n"
           "After a write to a block device the kernel is told about the changed\n"
           "entries; when it cannot take them (the disk is busy) that is a warning.\n"
           "Information and warnings go to standard error; standard output carries\n"
           "only the listing.\n"
           "\n"
           "Exit status: 0 success; 1 the operation failed and the disk is as it\n"
           "was; 2 bad usage.\n";
}

namespace {

std::uint64_t parse_count(std::string_view text, char option)
{
    std::uint64_t value = 0;
    const char *end = text.data() + text.size();
    const auto [ptr, ec] = std::from_chars(text.data(), end, value);
    if (text.empty() || ec != std::errc() || ptr != end ||
        value > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()))
        usage_error(std::string("bad number for -") + option + ": '" + std::string(text) + "'");
    return value;
}

// One to two hexadecimal digits; anything else is refused with status 1.
unsigned parse_type(std::string_view text)
{
    unsigned value = 0;
    const char *end = text.data() + text.size();
    const auto [ptr, ec] = std::from_chars(text.data(), end, value, 16);
    if (text.empty() || text.size() > 2 || ec != std::errc() || ptr != end)
        fail("bad partition type '" + std::string(text) + "' (hexadecimal 1 to ff)");
    return value;
}

struct Seen {
    bool N = false, z = false, j = false, t = false, D = false, M = false, l = false, u = false, o = false;
};

void once(bool &seen, char option)
{
    if (seen) usage_error(std::string("option -") + option + " given twice");
    seen = true;
}

} // namespace

Options parse_options(int argc, char **argv)
{
    enum { kNoReread = 256 };
    static const option longopts[] = {
        {"no-reread", no_argument, nullptr, kNoReread},
        {"help", no_argument, nullptr, 'h'},
        {nullptr, 0, nullptr, 0},
    };
    Options o;
    Seen seen;
    std::string type_text;
    std::uint64_t partno = 0;
    bool help = false;
    opterr = 0;
    optind = 1;
    // "+": options end at the first operand, whatever the environment says.
    int c;
    while ((c = ::getopt_long(argc, argv, "+:N:u:qfj:z:t:FM:o:Dlh", longopts, nullptr)) != -1) {
        const std::string_view arg = optarg ? optarg : "";
        switch (c) {
        case 'N': {
            once(seen.N, 'N');
            partno = parse_count(arg, 'N');
            break;
        }
        case 'u':
            once(seen.u, 'u');
            if (arg != "S") usage_error("unit '" + std::string(arg) + "' not supported (only -uS, sectors)");
            break;
        case 'q': o.quiet = true; break;
        case 'f': o.force = true; break;
        case 'F': o.fresh_label = true; break;
        case 'j':
            once(seen.j, 'j');
            o.gap = parse_count(arg, 'j');
            break;
        case 'z':
            once(seen.z, 'z');
            o.size = arg == "-1" ? kToTheEnd : static_cast<std::int64_t>(parse_count(arg, 'z'));
            break;
        case 't':
            once(seen.t, 't');
            type_text = arg;
            break;
        case 'M':
            once(seen.M, 'M');
            if (arg != "1") usage_error("only -M1 is supported, not -M" + std::string(arg));
            break;
        case 'o':
            once(seen.o, 'o');
            if (arg != "0") usage_error("only -o0 is accepted, not -o" + std::string(arg));
            break;
        case 'D': once(seen.D, 'D'); break;
        case 'l': once(seen.l, 'l'); break;
        case 'h': help = true; break;
        case kNoReread: o.reread = false; break;
        case ':': usage_error(std::string("option -") + static_cast<char>(optopt) + " needs a value");
        default:
            if (optopt != 0 && optopt < 256)
                usage_error(std::string("unknown option -") + static_cast<char>(optopt));
            usage_error("unknown option " + std::string(argv[optind - 1]));
        }
    }
    if (help) {
        o.action = Action::Help;
        return o;
    }
    if (argc - optind != 1)
        usage_error(argc - optind == 0 ? "no device given" : "exactly one device expected");
    o.device = argv[optind];
    if (o.device.empty() || o.device[0] == '-') usage_error("refusing device name '" + o.device + "'");

    const int actions = int(seen.l) + int(seen.D) + int(seen.M) + int(seen.z && !seen.D);
    if (actions > 1) usage_error("choose one of -l, -D, -M1 and -z");
    if (seen.M) {
        if (seen.N || seen.j || seen.t) usage_error("-M1 takes no -N, -j or -t");
        o.action = Action::Reset;
    } else if (seen.l) {
        if (seen.j || seen.t) usage_error("-l takes no -j or -t");
        o.action = Action::List;
    } else if (seen.D) {
        if (!seen.N) usage_error("-D needs -N");
        if ((seen.z && o.size != 0) || (seen.j && o.gap != 0))
            usage_error("-D takes no size or gap (only -z0 and -j0)");
        o.action = Action::Delete;
    } else if (seen.z) {
        if (!seen.N) usage_error("-z needs -N");
        o.action = Action::Create;
    } else {
        usage_error(seen.N ? "-N needs -z (create), -D (delete) or -l (list)" : "nothing to do (see -h)");
    }

    // Well-formed values out of range: status 1.
    if (seen.N) {
        if (partno < 1 || partno > 4)
            fail("partition number " + std::to_string(partno) + " out of range (1 to 4)");
        o.partno = static_cast<unsigned>(partno);
    }
    if (seen.t) o.type = parse_type(type_text);
    if (o.action == Action::Delete && seen.t && o.type != 0) fail("-D takes no type (only -t0)");
    if (o.action == Action::Create) {
        if (o.size == 0) fail("size 0: a new partition needs at least one sector");
        if (o.type == 0) fail("type 0 marks an empty entry; give a type from 1 to ff");
    }
    return o;
}

} // namespace sfdisk

int main(int argc, char **argv)
{
    using namespace sfdisk;
    try {
        const Options o = parse_options(argc, argv);
        switch (o.action) {
        case Action::Help:
            std::fputs(usage_text(), stdout);
            break;
        case Action::Create: create_partition(o); break;
        case Action::Delete: delete_partition(o); break;
        case Action::Reset: reset_table(o); break;
        case Action::List: list_partitions(o); break;
        }
        if (std::fflush(stdout) != 0) {
            std::fprintf(stderr, "sfdisk: cannot write the output\n");
            return kFailed;
        }
        return kOk;
    } catch (const Failure &e) {
        if (*e.what() != '\0') std::fprintf(stderr, "sfdisk: %s\n", e.what());
        return e.status();
    } catch (const std::bad_alloc &) {
        std::fprintf(stderr, "sfdisk: out of memory\n");
    } catch (const std::exception &e) {
        std::fprintf(stderr, "sfdisk: %s\n", e.what());
    }
    return kFailed;
}
