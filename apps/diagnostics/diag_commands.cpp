#include "diag_commands.h"

#include <cstdlib>
#include <cstring>

#include "diag_heap_map.h"

namespace {

// A word taken as it is typed: the FOLDER of heap-map. Not a node type of
// the library's tree: the host parser learns it from the tree's table of
// extra node types.
constexpr int kNodeWord = 100;

DiagCommands* acting = nullptr;

void heap_map_command(parser_config*, parser_result* result, u_int32_t) {
    const std::string folder = result->item_count > 0 ? result->item[0].data.string : acting->map_folder;
    if (folder.empty()) {
        fprintf(acting->err, "%s: heap-map: no folder for the maps: give one (heap-map FOLDER)\n", acting->program);
        ++acting->failures;
        return;
    }
    if (!diag_heap_maps_write(folder, *acting->inputs, acting->program, acting->err)) {
        ++acting->failures;
        return;
    }
    parser_printf("Heap maps written to %s\n", folder.c_str());
}

int word_parse(const parser_node_info*, const char* word, parser_item* item) {
    item->type = PARSER_RES_string;
    item->data.string = strdup(word);
    return item->data.string != nullptr ? 1 : -1;
}

void word_help(const parser_node_info*, char* buffer, size_t size) { snprintf(buffer, size, "<folder>"); }

void word_debug(const parser_node_info*, const parser_item* item) { parser_printf("\"%s\"", item->data.string); }

void word_release(parser_item* item) {
    free(const_cast<char*>(item->data.string));
    item->data.string = nullptr;
}

parser_cmd_info extra_nodes[] = {
    {kNodeWord, word_parse, nullptr, word_help, word_debug, word_release},
    {0, nullptr, nullptr, nullptr, nullptr, nullptr},
};

parser_type_end_of_line heap_map_folder_end = {
    {PARSER_NODE_END_OF_LINE, nullptr, nullptr, nullptr, 0}, heap_map_command, 0};
parser_node_info heap_map_folder = {kNodeWord, &heap_map_folder_end, nullptr, "folder to write the maps into", 0};
parser_type_end_of_line heap_map_end = {
    {PARSER_NODE_END_OF_LINE, nullptr, &heap_map_folder, nullptr, 0}, heap_map_command, 0};
parser_type_keyword heap_map = {
    {PARSER_NODE_KEYWORD, &heap_map_end, nullptr, "write an SVG map of every heap", 0}, "heap-map", 0, 0, 0, 0};
parser_tree_info tree = {&heap_map.info, extra_nodes};

}  // namespace

const parser_tree_info* diag_commands_tree(DiagCommands* commands) {
    acting = commands;
    return &tree;
}
