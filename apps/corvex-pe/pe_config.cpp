// Reading the forwarding model. The format, one statement a line, '#'
// starting a comment:
//   upstream NAME
//   port NAME E-CID [vlan strip | vlan add VID [PCP]]
//   group E-CID PORT...
#include "pe_config.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace {

constexpr unsigned kGroupsMax = 256;
constexpr unsigned kWordsMax = PE_PORTS_MAX + 2;

struct Reader {
    const char* path;
    unsigned line;
    FILE* err;

    int fail(const char* what, const char* word) const {
        fprintf(err, "corvex-pe: %s:%u: %s%s%s\n", path, line, what, word ? ": " : "", word ? word : "");
        return -1;
    }
};

bool number_parse(const char* word, unsigned long max, unsigned long* value) {
    char* end = nullptr;
    errno = 0;
    *value = strtoul(word, &end, 0);
    return errno == 0 && end != word && *end == '\0' && word[0] != '-' && *value <= max;
}

int split(char* text, char** words) {
    int n = 0;
    for (char* word = strtok(text, " \t\r\n"); word != nullptr && word[0] != '#'; word = strtok(nullptr, " \t\r\n")) {
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
    unsigned nports = 1;  // port 0, the upstream port, is named by its statement
    bool have_upstream = false;
    pe_group_t groups[kGroupsMax];
    unsigned ngroups = 0;
    // Group members are names until every port is known.
    char member_names[kGroupsMax][PE_PORTS_MAX][PE_NAME_MAX];
    unsigned nmembers[kGroupsMax];
    unsigned group_line[kGroupsMax];

    int port_index(const char* name) const {
        for (unsigned i = 0; i < nports; ++i)
            if ((i > 0 || have_upstream) && strcmp(ports[i].name, name) == 0) return static_cast<int>(i);
        return -1;
    }
    bool ecid_taken(pe_ecid_t ecid) const {
        for (unsigned i = 1; i < nports; ++i)
            if (ports[i].ecid == ecid) return true;
        for (unsigned i = 0; i < ngroups; ++i)
            if (groups[i].ecid == ecid) return true;
        return false;
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

// The name rules: shorter than PE_NAME_MAX, and one port a name.
int name_set(const Reader& reader, Draft& draft, pe_port_t& port, const char* name) {
    if (strlen(name) >= PE_NAME_MAX) return reader.fail("port name too long", name);
    if (draft.port_index(name) >= 0) return reader.fail("port named twice", name);
    strcpy(port.name, name);
    return 0;
}

// The E-CID rules: one E-CID a port or group, unicast for a port and
// multicast for a group.
int ecid_read(const Reader& reader, const Draft& draft, const char* word, bool multicast, pe_ecid_t* ecid) {
    unsigned long value = 0;
    if (!number_parse(word, ETHER_802_ECID_MAX, &value) || (!multicast && value == 0) ||
        ether_802_ecid_is_multicast(static_cast<pe_ecid_t>(value)) != multicast)
        return reader.fail(multicast ? "not a multicast E-CID" : "not a unicast E-CID", word);
    if (draft.ecid_taken(static_cast<pe_ecid_t>(value))) return reader.fail("E-CID used twice", word);
    *ecid = static_cast<pe_ecid_t>(value);
    return 0;
}

// upstream NAME
int upstream_read(const Reader& reader, Draft& draft, Words& words) {
    const char* name = words.take();
    if (name == nullptr || words.left() != 0) return reader.fail("expected: upstream NAME", nullptr);
    if (draft.have_upstream) return reader.fail("second upstream port", name);
    if (name_set(reader, draft, draft.ports[0], name) != 0) return -1;
    draft.have_upstream = true;
    return 0;
}

// The words of a port statement, in their places; the whole statement is
// taken apart before any word is judged.
struct PortWords {
    const char* name = nullptr;
    const char* ecid = nullptr;
    pe_vlan_action vlan = PE_VLAN_KEEP;
    const char* vid = nullptr;
    const char* pcp = nullptr;  // may be left out after the VID
};

bool port_words_take(Words& words, PortWords& port) {
    port.name = words.take();
    port.ecid = words.take();
    if (port.ecid == nullptr) return false;
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

// port NAME E-CID [vlan strip | vlan add VID [PCP]]
int port_read(const Reader& reader, Draft& draft, Words& words) {
    PortWords given;
    if (!port_words_take(words, given))
        return reader.fail("expected: port NAME E-CID [vlan strip | vlan add VID [PCP]]", nullptr);
    if (draft.nports == PE_PORTS_MAX) return reader.fail("too many ports", given.name);
    pe_port_t& port = draft.ports[draft.nports];
    port = pe_port_t{};
    if (name_set(reader, draft, port, given.name) != 0) return -1;
    if (ecid_read(reader, draft, given.ecid, false, &port.ecid) != 0) return -1;
    port.vlan = given.vlan;
    if (given.vlan == PE_VLAN_ADD) {
        unsigned long vid = 0, pcp = 0;
        if (!number_parse(given.vid, 4094, &vid) || vid == 0) return reader.fail("not a VLAN ID", given.vid);
        if (given.pcp != nullptr && !number_parse(given.pcp, 7, &pcp)) return reader.fail("not a priority", given.pcp);
        port.vlan_tci = static_cast<uint16_t>(pcp << ETHER_VLAN_PCP_SHIFT | vid);
    }
    ++draft.nports;
    return 0;
}

// group E-CID PORT...
int group_read(const Reader& reader, Draft& draft, Words& words) {
    const char* ecid = words.take();
    if (ecid == nullptr || words.left() == 0) return reader.fail("expected: group E-CID PORT...", nullptr);
    if (words.left() > static_cast<int>(PE_PORTS_MAX)) return reader.fail("too many members", ecid);
    if (draft.ngroups == kGroupsMax) return reader.fail("too many groups", ecid);
    pe_group_t group{};
    if (ecid_read(reader, draft, ecid, true, &group.ecid) != 0) return -1;
    // Members are resolved at the end, so groups may come before their ports.
    const unsigned g = draft.ngroups++;
    draft.groups[g] = group;
    draft.group_line[g] = reader.line;
    draft.nmembers[g] = 0;
    while (const char* member = words.take()) {
        if (strlen(member) >= PE_NAME_MAX) return reader.fail("no such port", member);
        strcpy(draft.member_names[g][draft.nmembers[g]++], member);
    }
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

}  // namespace

int pe_config_read(pe_config_t* config, FILE* in, const char* path, heap_t* heap, FILE* err) {
    auto* draft = new Draft;  // too large for the stack
    Reader reader{path, 0, err};
    int status = 0;
    char line[256];
    while (status == 0 && fgets(line, sizeof line, in) != nullptr) {
        ++reader.line;
        char* words[kWordsMax];
        const int n = strchr(line, '\n') == nullptr && !feof(in) ? -2 : split(line, words);
        if (n == -2) status = reader.fail("line too long", nullptr);
        else if (n < 0) status = reader.fail("too many words", nullptr);
        else if (n > 0) status = statement_read(reader, *draft, words, n);
    }
    if (status == 0 && !draft->have_upstream) status = reader.fail("no upstream port", nullptr);
    if (status == 0)
        std::sort(draft->ports + 1, draft->ports + draft->nports,
                  [](const pe_port_t& a, const pe_port_t& b) { return a.ecid < b.ecid; });
    for (unsigned g = 0; status == 0 && g < draft->ngroups; ++g) {
        reader.line = draft->group_line[g];
        for (unsigned m = 0; m < draft->nmembers[g]; ++m) {
            const int port = draft->port_index(draft->member_names[g][m]);
            if (port <= 0) {
                status = reader.fail("not an extended port", draft->member_names[g][m]);
                break;
            }
            draft->groups[g].members |= uint64_t{1} << port;
        }
    }
    if (status == 0) {
        std::sort(draft->groups, draft->groups + draft->ngroups,
                  [](const pe_group_t& a, const pe_group_t& b) { return a.ecid < b.ecid; });
        *config = pe_config_t{heap, draft->nports, heap_copy(heap, draft->ports, draft->nports), draft->ngroups,
                              heap_copy(heap, draft->groups, draft->ngroups)};
        if (config->ports == nullptr || (draft->ngroups > 0 && config->groups == nullptr)) {
            pe_config_release(config);
            status = reader.fail("no memory for the tables", nullptr);
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
