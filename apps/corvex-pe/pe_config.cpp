// Reading the forwarding model. The format, one statement a line, '#'
// starting a comment:
//   upstream NAME
//   port NAME E-CID [priority P] [vlan strip | vlan add VID [PCP]]
//   group E-CID PORT...
// Names are 1 to PE_NAME_MAX letters, digits, '_', '-' and '.', not
// starting with '.' (they become file names); numbers are decimal, or hex
// after 0x. Every fault is told with the file and the line, a duplicate
// with the line that came first.
#include "pe_config.h"


#include <algorithm>
#include <cerrno>
#include <cstring>

namespace {

// A statement's words: a group of every extended port is the longest.
constexpr unsigned kWordsMax = PE_PORTS_MAX + 2;
constexpr unsigned kPriorityMax = 7;
constexpr unsigned long kVidMax = 4094;
// The messages name these limits.
static_assert(PE_NAME_MAX == 32 && PE_LINE_MAX == 4096 && PE_PORTS_MAX == 64 && PE_GROUPS_MAX == 256 &&
              kWordsMax == 66 && kPriorityMax == 7);

struct Reader {
    const char* path;
    unsigned line;
    FILE* err;

    // One line on err: the place, what is wrong, where it was first said
    // (a line before this one) and the word at fault, bytes a terminal
    // would act on written as \xHH.
    int fail(const char* what, const char* word = nullptr, unsigned first_line = 0) const {
        fprintf(err, "corvex-pe: %s:%u: %s", path, line, what);
        if (first_line != 0) fprintf(err, " (first on line %u)", first_line);
        if (word != nullptr) {
            fputs(": ", err);
            for (const char* c = word; *c != '\0'; ++c) {
                const auto byte = static_cast<unsigned char>(*c);
                if (byte >= 0x20 && byte < 0x7F) fputc(byte, err);
                else fprintf(err, "\\x%02x", byte);
            }
        }
        fputc('\n', err);
        return -1;
    }
};

// Decimal, or hex after 0x; no sign and no octal (08 is 8).
bool number_parse(const char* word, unsigned long max, unsigned long* value) {
    const bool hex = word[0] == '0' && (word[1] == 'x' || word[1] == 'X');
    const unsigned long base = hex ? 16 : 10;
    const char* digit = hex ? word + 2 : word;
    if (*digit == '\0') return false;
    unsigned long number = 0;
    for (; *digit != '\0'; ++digit) {
        const char c = *digit;
        unsigned long d = 0;
        if (c >= '0' && c <= '9') d = static_cast<unsigned long>(c - '0');
        else if (hex && c >= 'a' && c <= 'f') d = static_cast<unsigned long>(c - 'a' + 10);
        else if (hex && c >= 'A' && c <= 'F') d = static_cast<unsigned long>(c - 'A' + 10);
        else return false;
        number = number * base + d;  // number <= max before, so no overflow
        if (number > max) return false;
    }
    *value = number;
    return true;
}

bool name_char_is_valid(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' || c == '-' ||
           c == '.';
}

bool name_is_valid(const char* name) {
    const size_t length = strlen(name);
    return length > 0 && length <= PE_NAME_MAX && name[0] != '.' &&
           std::all_of(name, name + length, name_char_is_valid);
}

int name_fail(const Reader& reader, const char* name) {
    return reader.fail("not a port name (1 to 32 letters, digits, '_', '-' or '.', not starting with '.')", name);
}

// Reads one line of in into text, without its newline. Returns 1 for a
// line, 0 at the end of the file, -1 after telling what was wrong.
int line_read(Reader& reader, FILE* in, char (&text)[PE_LINE_MAX + 1]) {
    unsigned length = 0;
    int c = 0;
    ++reader.line;
    while ((c = getc(in)) != EOF && c != '\n') {
        if (c == '\0') return reader.fail("binary data (a NUL byte), not a configuration");
        if (length == PE_LINE_MAX) return reader.fail("line too long (at most 4096 bytes)");
        text[length++] = static_cast<char>(c);
    }
    if (ferror(in)) return reader.fail("cannot read", strerror(errno));
    text[length] = '\0';
    if (c == EOF && length == 0) {
        --reader.line;
        return 0;
    }
    return 1;
}

// The words of text up to a comment; -1 when there are more than fit.
int words_split(char* text, char** words) {
    int n = 0;
    char* save = nullptr;
    for (char* word = strtok_r(text, " \t\r", &save); word != nullptr && word[0] != '#';
         word = strtok_r(nullptr, " \t\r", &save)) {
        if (n == static_cast<int>(kWordsMax)) return -1;
        words[n++] = word;
    }
    return n;
}

template <typename T>
T* heap_copy(heap_t* heap, const T* items, unsigned count) {
    if (count == 0) return nullptr;
    auto* copy = static_cast<T*>(heap_malloc(heap, sizeof(T) * count));
    if (copy != nullptr) memcpy(copy, items, sizeof(T) * count);
    return copy;
}

struct Draft {
    pe_port_t ports[PE_PORTS_MAX];
    unsigned port_line[PE_PORTS_MAX];
    unsigned nports = 1;  // port 0, the upstream port, is named by its statement
    bool have_upstream = false;
    pe_group_t groups[PE_GROUPS_MAX];
    unsigned group_line[PE_GROUPS_MAX];
    unsigned ngroups = 0;
    // Group members are names until every port is known.
    char member_names[PE_GROUPS_MAX][PE_PORTS_MAX - 1][PE_NAME_MAX + 1];
    unsigned nmembers[PE_GROUPS_MAX];

    int port_index(const char* name) const {
        for (unsigned i = 0; i < nports; ++i)
            if ((i > 0 || have_upstream) && strcmp(ports[i].name, name) == 0) return static_cast<int>(i);
        return -1;
    }
    // The line of the port or group that has ecid, or 0.
    unsigned ecid_line(pe_ecid_t ecid) const {
        for (unsigned i = 1; i < nports; ++i)
            if (ports[i].ecid == ecid) return port_line[i];
        for (unsigned i = 0; i < ngroups; ++i)
            if (groups[i].ecid == ecid) return group_line[i];
        return 0;
    }
};

// The words of one statement after its keyword, taken from the front.
class Words {
public:
    Words(char** words, int count) : words_(words), count_(count) {}
    // The next word, or null when none is left.
    const char* take() { return next_ < count_ ? words_[next_++] : nullptr; }
    // Takes the next word when it is `keyword`.
    bool take(const char* keyword) {
        if (next_ == count_ || strcmp(words_[next_], keyword) != 0) return false;
        ++next_;
        return true;
    }
    int left() const { return count_ - next_; }

private:
    char** words_;
    int count_;
    int next_ = 0;
};

// The name rules: the characters, and one port a name.
int name_set(const Reader& reader, Draft& draft, unsigned index, const char* name) {
    if (!name_is_valid(name)) return name_fail(reader, name);
    const int named = draft.port_index(name);
    if (named >= 0) return reader.fail("port named twice", name, draft.port_line[named]);
    strcpy(draft.ports[index].name, name);
    draft.port_line[index] = reader.line;
    return 0;
}

// The E-CID rules: one E-CID a port or group, unicast for a port and
// multicast for a group.
int ecid_read(const Reader& reader, const Draft& draft, const char* word, bool multicast, pe_ecid_t* ecid) {
    unsigned long value = 0;
    if (!number_parse(word, ETHER_802_ECID_MAX, &value) || (!multicast && value == 0) ||
        (ether_802_ecid_is_multicast(static_cast<pe_ecid_t>(value)) != 0) != multicast)
        return reader.fail(multicast ? "not a multicast E-CID" : "not a unicast E-CID", word);
    const unsigned first = draft.ecid_line(static_cast<pe_ecid_t>(value));
    if (first != 0) return reader.fail("E-CID used twice", word, first);
    *ecid = static_cast<pe_ecid_t>(value);
    return 0;
}

// upstream NAME
int upstream_read(const Reader& reader, Draft& draft, Words& words) {
    const char* name = words.take();
    if (name == nullptr || words.left() != 0) return reader.fail("expected: upstream NAME");
    if (draft.have_upstream) return reader.fail("second upstream port", name, draft.port_line[0]);
    if (name_set(reader, draft, 0, name) != 0) return -1;
    draft.have_upstream = true;
    return 0;
}

// The words of a port statement, in their places; the whole statement is
// taken apart before any word is judged.
struct PortWords {
    const char* name = nullptr;
    const char* ecid = nullptr;
    const char* priority = nullptr;
    pe_vlan_action vlan = PE_VLAN_KEEP;
    const char* vid = nullptr;
    const char* pcp = nullptr;  // may be left out after the VID
};

bool port_words_take(Words& words, PortWords& port) {
    port.name = words.take();
    port.ecid = words.take();
    if (port.ecid == nullptr) return false;
    if (words.take("priority") && (port.priority = words.take()) == nullptr) return false;
    if (words.take("vlan")) {
        if (words.take("strip")) {
            port.vlan = PE_VLAN_STRIP;
        } else if (words.take("add") && (port.vid = words.take()) != nullptr) {
            port.vlan = PE_VLAN_ADD;
            port.pcp = words.take();
        } else {
            return false;
        }
    }
    return words.left() == 0;
}

int priority_read(const Reader& reader, const char* word, unsigned long* priority) {
    return number_parse(word, kPriorityMax, priority) ? 0 : reader.fail("not a priority (0 to 7)", word);
}

// port NAME E-CID [priority P] [vlan strip | vlan add VID [PCP]]
int port_read(const Reader& reader, Draft& draft, Words& words) {
    PortWords given;
    if (!port_words_take(words, given))
        return reader.fail("expected: port NAME E-CID [priority P] [vlan strip | vlan add VID [PCP]]");
    if (draft.nports == PE_PORTS_MAX) return reader.fail("too many ports (at most 63 extended ports)", given.name);
    pe_port_t& port = draft.ports[draft.nports];
    port = pe_port_t{};
    if (name_set(reader, draft, draft.nports, given.name) != 0) return -1;
    if (ecid_read(reader, draft, given.ecid, false, &port.ecid) != 0) return -1;
    unsigned long priority = 0;
    if (given.priority != nullptr && priority_read(reader, given.priority, &priority) != 0) return -1;
    port.priority = static_cast<uint8_t>(priority);
    port.vlan = given.vlan;
    if (given.vlan == PE_VLAN_ADD) {
        unsigned long vid = 0, pcp = priority;
        if (!number_parse(given.vid, kVidMax, &vid) || vid == 0)
            return reader.fail("not a VLAN ID (1 to 4094)", given.vid);
        if (given.pcp != nullptr && priority_read(reader, given.pcp, &pcp) != 0) return -1;
        port.vlan_tci = static_cast<uint16_t>(pcp << ETHER_VLAN_PCP_SHIFT | vid);
    }
    ++draft.nports;
    return 0;
}

// group E-CID PORT...
int group_read(const Reader& reader, Draft& draft, Words& words) {
    const char* ecid = words.take();
    if (ecid == nullptr || words.left() == 0) return reader.fail("expected: group E-CID PORT...");
    if (words.left() > static_cast<int>(PE_PORTS_MAX - 1)) return reader.fail("too many members (at most 63)", ecid);
    if (draft.ngroups == PE_GROUPS_MAX) return reader.fail("too many groups (at most 256)", ecid);
    pe_group_t group{};
    if (ecid_read(reader, draft, ecid, true, &group.ecid) != 0) return -1;
    // Members are resolved at the end, so groups may come before their ports.
    const unsigned g = draft.ngroups;
    unsigned& count = draft.nmembers[g];
    count = 0;
    while (const char* member = words.take()) {
        if (!name_is_valid(member)) return name_fail(reader, member);
        for (unsigned m = 0; m < count; ++m)
            if (strcmp(draft.member_names[g][m], member) == 0)
                return reader.fail("port listed twice in the group", member);
        strcpy(draft.member_names[g][count++], member);
    }
    draft.groups[g] = group;
    draft.group_line[g] = reader.line;
    ++draft.ngroups;
    return 0;
}

struct Statement {
    const char* keyword;
    int (*read)(const Reader& reader, Draft& draft, Words& words);
};
constexpr Statement kStatements[] = {{"upstream", upstream_read}, {"port", port_read}, {"group", group_read}};

int statement_read(const Reader& reader, Draft& draft, char** words, int n) {
    for (const Statement& statement : kStatements) {
        if (strcmp(words[0], statement.keyword) == 0) {
            Words rest(words + 1, n - 1);
            return statement.read(reader, draft, rest);
        }
    }
    return reader.fail("unknown statement", words[0]);
}

// Every line of in, statement by statement, into draft.
int statements_read(Reader& reader, Draft& draft, FILE* in) {
    char text[PE_LINE_MAX + 1];
    for (;;) {
        const int got = line_read(reader, in, text);
        if (got <= 0) return got;
        char* words[kWordsMax];
        const int n = words_split(text, words);
        if (n < 0) return reader.fail("too many words (at most 66 a statement)");
        if (n > 0 && statement_read(reader, draft, words, n) != 0) return -1;
    }
}

// Group members from names to port bits, each group told at its own line.
int members_resolve(Reader& reader, Draft& draft) {
    for (unsigned g = 0; g < draft.ngroups; ++g) {
        reader.line = draft.group_line[g];
        for (unsigned m = 0; m < draft.nmembers[g]; ++m) {
            const int port = draft.port_index(draft.member_names[g][m]);
            if (port <= 0) return reader.fail("not an extended port", draft.member_names[g][m]);
            draft.groups[g].members |= uint64_t{1} << port;
        }
    }
    return 0;
}

int draft_read(Reader& reader, Draft& draft, FILE* in) {
    if (statements_read(reader, draft, in) != 0) return -1;
    // Told at the last line, the first one of an empty file.
    reader.line = std::max(reader.line, 1u);
    if (!draft.have_upstream) return reader.fail("no upstream port (upstream NAME)");
    // Sorted before the members become port bits: the bits are indices.
    std::sort(draft.ports + 1, draft.ports + draft.nports,
              [](const pe_port_t& a, const pe_port_t& b) { return a.ecid < b.ecid; });
    return members_resolve(reader, draft);
}

}  // namespace

int pe_config_read(pe_config_t* config, FILE* in, const char* path, heap_t* heap, FILE* err) {
    auto* draft = new Draft;  // too large for the stack
    Reader reader{path, 0, err};
    int status = draft_read(reader, *draft, in);
    if (status == 0) {
        std::sort(draft->groups, draft->groups + draft->ngroups,
                  [](const pe_group_t& a, const pe_group_t& b) { return a.ecid < b.ecid; });
        *config = pe_config_t{heap, draft->nports, heap_copy(heap, draft->ports, draft->nports), draft->ngroups,
                              heap_copy(heap, draft->groups, draft->ngroups)};
        if (config->ports == nullptr || (draft->ngroups > 0 && config->groups == nullptr)) {
            pe_config_release(config);
            status = reader.fail("no memory for the tables");
        }
    }
    delete draft;
    return status;
}

void pe_config_release(pe_config_t* config) {
    if (config->ports != nullptr) heap_free(config->heap, config->ports);
    if (config->groups != nullptr) heap_free(config->heap, config->groups);
    config->ports = nullptr;
    config->groups = nullptr;
    config->nports = config->ngroups = 0;
}

int pe_config_port_by_ecid(const pe_config_t* config, pe_ecid_t ecid) {
    const pe_port_t* first = config->ports + 1;
    const pe_port_t* last = config->ports + config->nports;
    const pe_port_t* found =
        std::lower_bound(first, last, ecid, [](const pe_port_t& port, pe_ecid_t key) { return port.ecid < key; });
    return found != last && found->ecid == ecid ? static_cast<int>(found - config->ports) : -1;
}

const pe_group_t* pe_config_group_by_ecid(const pe_config_t* config, pe_ecid_t ecid) {
    const pe_group_t* last = config->groups + config->ngroups;
    const pe_group_t* first = config->groups;
    const pe_group_t* found = std::lower_bound(first, last, ecid,
                                               [](const pe_group_t& group, pe_ecid_t key) { return group.ecid < key; });
    return found != last && found->ecid == ecid ? found : nullptr;
}

int pe_config_port_by_name(const pe_config_t* config, const char* name) {
    for (unsigned i = 0; i < config->nports; ++i)
        if (strcmp(config->ports[i].name, name) == 0) return static_cast<int>(i);
    return -1;
}
