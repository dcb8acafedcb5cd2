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

int name_set(const Reader& reader, Draft& draft, pe_port_t& port, const char* name) {
    if (strlen(name) >= PE_NAME_MAX) return reader.fail("port name too long", name);
    if (draft.port_index(name) >= 0) return reader.fail("port named twice", name);
    strcpy(port.name, name);
    return 0;
}

int statement_read(const Reader& reader, Draft& draft, char** words, int n) {
    unsigned long value = 0;
    if (strcmp(words[0], "upstream") == 0) {
        if (n != 2) return reader.fail("expected: upstream NAME", nullptr);
        if (draft.have_upstream) return reader.fail("second upstream port", words[1]);
        if (name_set(reader, draft, draft.ports[0], words[1]) != 0) return -1;
        draft.have_upstream = true;
        return 0;
    }
    if (strcmp(words[0], "port") == 0) {
        if (n != 3 && !(n == 5 && strcmp(words[3], "vlan") == 0 && strcmp(words[4], "strip") == 0) &&
            !((n == 6 || n == 7) && strcmp(words[3], "vlan") == 0 && strcmp(words[4], "add") == 0))
            return reader.fail("expected: port NAME E-CID [vlan strip | vlan add VID [PCP]]", nullptr);
        if (draft.nports == PE_PORTS_MAX) return reader.fail("too many ports", words[1]);
        pe_port_t& port = draft.ports[draft.nports];
        port = pe_port_t{};
        if (name_set(reader, draft, port, words[1]) != 0) return -1;
        if (!number_parse(words[2], ETHER_802_ECID_MAX, &value) || value == 0 || ether_802_ecid_is_multicast(value))
            return reader.fail("not a unicast E-CID", words[2]);
        if (draft.ecid_taken(value)) return reader.fail("E-CID used twice", words[2]);
        port.ecid = static_cast<pe_ecid_t>(value);
        if (n == 5) port.vlan = PE_VLAN_STRIP;
        if (n >= 6) {
            unsigned long pcp = 0;
            if (!number_parse(words[5], 4094, &value) || value == 0) return reader.fail("not a VLAN ID", words[5]);
            if (n == 7 && !number_parse(words[6], 7, &pcp)) return reader.fail("not a priority", words[6]);
            port.vlan = PE_VLAN_ADD;
            port.vlan_tci = static_cast<uint16_t>(pcp << ETHER_VLAN_PCP_SHIFT | value);
        }
        ++draft.nports;
        return 0;
    }
    if (strcmp(words[0], "group") == 0) {
        if (n < 3) return reader.fail("expected: group E-CID PORT...", nullptr);
        if (n - 2 > static_cast<int>(PE_PORTS_MAX)) return reader.fail("too many members", words[1]);
        if (draft.ngroups == kGroupsMax) return reader.fail("too many groups", words[1]);
        if (!number_parse(words[1], ETHER_802_ECID_MAX, &value) || !ether_802_ecid_is_multicast(value))
            return reader.fail("not a multicast E-CID", words[1]);
        if (draft.ecid_taken(value)) return reader.fail("E-CID used twice", words[1]);
        // Members are resolved at the end, so groups may come before their ports.
        const unsigned g = draft.ngroups++;
        draft.groups[g] = pe_group_t{static_cast<pe_ecid_t>(value), 0};
        draft.group_line[g] = reader.line;
        draft.nmembers[g] = static_cast<unsigned>(n - 2);
        for (int i = 2; i < n; ++i) {
            if (strlen(words[i]) >= PE_NAME_MAX) return reader.fail("no such port", words[i]);
            strcpy(draft.member_names[g][i - 2], words[i]);
        }
        return 0;
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
