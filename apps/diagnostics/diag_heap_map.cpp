#include "diag_heap_map.h"

#include <algorithm>
#include <cinttypes>
#include <vector>

#include "diag_blocks.h"
#include "diag_symbols.h"
#include "diag_text.h"

namespace {

// Geometry, in pixels: rows of the map, at most kRowsMax of them, so a
// large heap takes more bytes a pixel rather than a longer page.
constexpr int kMargin = 16;
constexpr int kRowWidth = 1024;
constexpr int kRowHeight = 10;
constexpr int kRowPitch = 13;
constexpr uint64_t kRowsMax = 64;
constexpr int kLinePitch = 18;
// A cell narrower than this is drawn this wide, so that no block vanishes.
constexpr double kCellMin = 0.5;

// The colours of the callers holding the most bytes, largest first; the
// rest share one.
constexpr const char* kCallerColours[] = {"#4e79a7", "#f28e2b", "#e15759", "#76b7b2",
                                          "#59a14f", "#edc948", "#b07aa1", "#ff9da7"};
constexpr size_t kCallersNamed = std::size(kCallerColours);
constexpr char kOtherColour[] = "#9c755f";

struct Summary {
    uint64_t free_bytes = 0, largest_free = 0, free_blocks = 0, allocated_blocks = 0, debug_blocks = 0;
    std::vector<diag_caller_t> callers;  // most bytes first
};

Summary summary_of(const std::vector<diag_block_t>& blocks) {
    Summary summary;
    DiagCallers callers;
    for (const diag_block_t& block : blocks) {
        if (!block.allocated) {
            summary.free_bytes += diag_block_span(block);
            summary.largest_free = std::max(summary.largest_free, diag_block_span(block));
            ++summary.free_blocks;
            continue;
        }
        ++summary.allocated_blocks;
        summary.debug_blocks += block.trailer != 0;
        callers.add(block.pc, block.size);
    }
    summary.callers = callers.by_bytes();
    return summary;
}

// "1 block", "2 blocks".
std::string counted(uint64_t count, const char* what) {
    return std::to_string(count) + " " + what + (count == 1 ? "" : "s");
}

std::string caller_name(uintptr_t pc) {
    const std::string name = diag_symbol_describe(pc, true);
    char hex[24];
    snprintf(hex, sizeof hex, "0x%" PRIxPTR, pc);
    return name.empty() ? hex : name;
}

class MapWriter {
public:
    MapWriter(FILE* out, uintptr_t base, uint64_t bytes_per_pixel, int top)
        : out_(out), base_(base), scale_(static_cast<double>(bytes_per_pixel)), top_(top) {}

    // The cells of bytes [first, end) of the heap, split where rows end.
    void cells(uintptr_t first, uintptr_t end, const char* attributes) const {
        double from = static_cast<double>(first - base_) / scale_;
        const double to = std::max(static_cast<double>(end - base_) / scale_, from + kCellMin);
        while (from < to) {
            const double row = static_cast<double>(static_cast<uint64_t>(from) / kRowWidth);
            const double row_end = std::min(to, (row + 1) * kRowWidth);
            fprintf(out_, "<rect x=\"%.2f\" y=\"%.0f\" width=\"%.2f\" height=\"%d\"%s/>", kMargin + from - row * kRowWidth,
                    top_ + row * kRowPitch, std::max(row_end - from, kCellMin), kRowHeight, attributes);
            from = row_end;
        }
    }

private:
    FILE* out_;
    uintptr_t base_;
    double scale_;
    int top_;
};

void swatch(FILE* out, int y, const char* attributes, const std::string& text) {
    fprintf(out, "<rect x=\"%d\" y=\"%d\" width=\"12\" height=\"12\"%s/><text x=\"%d\" y=\"%d\">%s</text>\n", kMargin,
            y - 11, attributes, kMargin + 18, y, diag_xml_escaped(text).c_str());
}

}  // namespace

void diag_heap_map_draw(heap_t* heap, FILE* out) {
    std::vector<diag_block_t> blocks;
    const status_t walk = diag_blocks_read(heap, &blocks);
    const Summary summary = summary_of(blocks);
    const uint64_t size = heap->size;
    const uint64_t bytes_per_pixel = std::max<uint64_t>(1, (size + kRowWidth * kRowsMax - 1) / (kRowWidth * kRowsMax));
    const uint64_t rows = std::max<uint64_t>(1, (size + bytes_per_pixel * kRowWidth - 1) / (bytes_per_pixel * kRowWidth));
    const size_t legend = std::min(summary.callers.size(), kCallersNamed) + (summary.callers.size() > kCallersNamed) + 3;
    const int map_top = kMargin + 4 * kLinePitch + (walk != 0 ? kLinePitch : 0);
    const int legend_top = map_top + static_cast<int>(rows) * kRowPitch + kLinePitch + 8;
    const int height = legend_top + static_cast<int>(legend) * kLinePitch + kMargin;
    const double fragmentation =
        summary.free_bytes == 0 ? 0 : 1 - static_cast<double>(summary.largest_free) / static_cast<double>(summary.free_bytes);
    const std::string name = diag_xml_escaped(heap->name != nullptr ? heap->name : "");

    fprintf(out, "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
                 "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"%d\" height=\"%d\" viewBox=\"0 0 %d %d\" "
                 "font-family=\"sans-serif\" font-size=\"13\">\n"
                 "<title>Heap %u %s</title>\n"
                 "<style>.free{fill:#d9d9d9} .other{fill:%s} .block rect{stroke:#fff;stroke-width:0.3} "
                 ".debug rect, .block.debug rect{stroke:#000;stroke-width:0.8} "
                 ".debug rect.trailer, rect.trailer{fill:#111;stroke:none}</style>\n"
                 "<rect width=\"100%%\" height=\"100%%\" fill=\"#fff\"/>\n",
            kRowWidth + 2 * kMargin, height, kRowWidth + 2 * kMargin, height, heap->id, name.c_str(), kOtherColour);
    int y = kMargin + 14;
    fprintf(out, "<text x=\"%d\" y=\"%d\" font-size=\"16\" font-weight=\"bold\">Heap %u %s</text>\n", kMargin, y,
            heap->id, name.c_str());
    fprintf(out,
            "<text x=\"%d\" y=\"%d\">%" PRIu64 " bytes at 0x%" PRIxPTR ": %" PRIu64 " free, largest free block %" PRIu64
            ", fragmentation %.1f%%</text>\n",
            kMargin, y += kLinePitch, size, heap->base, summary.free_bytes, summary.largest_free, 100 * fragmentation);
    fprintf(out,
            "<text x=\"%d\" y=\"%d\">%zu blocks: %" PRIu64 " allocated (%" PRIu64 " in debug mode), %" PRIu64
            " free; a pixel is %" PRIu64 " bytes, a row %" PRIu64 "</text>\n",
            kMargin, y += kLinePitch, blocks.size(), summary.allocated_blocks, summary.debug_blocks, summary.free_blocks,
            bytes_per_pixel, bytes_per_pixel * kRowWidth);
    if (walk != 0) {
        fprintf(out,
                "<text x=\"%d\" y=\"%d\" fill=\"#c00\">The walk stopped at a corrupted block (status %d): only the "
                "blocks before it are drawn.</text>\n",
                kMargin, y += kLinePitch, static_cast<int>(walk));
    }

    // Colours by caller: the largest ones by name, the rest as "other".
    std::map<uintptr_t, std::string> fills;
    for (size_t i = 0; i < summary.callers.size(); ++i)
        fills[summary.callers[i].pc] = i < kCallersNamed ? std::string(" fill=\"") + kCallerColours[i] + "\"" : " class=\"other\"";
    const MapWriter map(out, heap->base, bytes_per_pixel, map_top);
    for (const diag_block_t& block : blocks) {
        fprintf(out, "<g class=\"block%s\" data-header=\"0x%" PRIxPTR "\" data-size=\"%u\" data-state=\"%s\"",
                block.trailer != 0 ? " debug" : "", block.header, block.size, block.allocated ? "allocated" : "free");
        std::string title = (block.allocated ? "allocated, " : "free, ") + std::to_string(block.size) + " bytes";
        if (block.allocated) {
            fprintf(out, " data-pc=\"0x%" PRIxPTR "\"", block.pc);
            title += ", by " + caller_name(block.pc);
        }
        if (block.trailer != 0) {
            fprintf(out, " data-trailer=\"%u\"", block.trailer);
            title += ", debug mode: its last " + std::to_string(block.trailer) + " bytes the trailer";
        }
        char at[24];
        snprintf(at, sizeof at, "0x%" PRIxPTR ": ", block.header);
        fprintf(out, "><title>%s</title>", diag_xml_escaped(at + title).c_str());
        const uintptr_t end = block.header + diag_block_span(block);
        map.cells(block.header, end, block.allocated ? fills[block.pc].c_str() : " class=\"free\"");
        if (block.trailer != 0) map.cells(end - block.trailer, end, " class=\"trailer\"");
        fprintf(out, "</g>\n");
    }

    y = legend_top;
    fprintf(out, "<text x=\"%d\" y=\"%d\" font-weight=\"bold\">Callers holding the most bytes</text>\n", kMargin, y);
    uint64_t other_bytes = 0, other_blocks = 0;
    for (size_t i = 0; i < summary.callers.size(); ++i) {
        const diag_caller_t& caller = summary.callers[i];
        if (i >= kCallersNamed) {
            other_bytes += caller.bytes;
            other_blocks += caller.blocks;
            continue;
        }
        swatch(out, y += kLinePitch, fills[caller.pc].c_str(),
               caller_name(caller.pc) + ": " + counted(caller.bytes, "byte") + " in " + counted(caller.blocks, "block"));
    }
    if (summary.callers.size() > kCallersNamed) {
        swatch(out, y += kLinePitch, " class=\"other\"",
               counted(summary.callers.size() - kCallersNamed, "other caller") + ": " + counted(other_bytes, "byte") +
                   " in " + counted(other_blocks, "block"));
    }
    swatch(out, y += kLinePitch, " class=\"free\"",
           "free: " + counted(summary.free_bytes, "byte") + " in " + counted(summary.free_blocks, "block") +
               ", headers included");
    fprintf(out, "<g class=\"debug\">");
    swatch(out, y += kLinePitch, " fill=\"#fff\"", "outlined: allocated in debug mode");
    fprintf(out, "</g>");
    swatch(out, y += kLinePitch, " class=\"trailer\"", "dark: a debug-mode block's trailer");
    fprintf(out, "</svg>\n");
}

std::string diag_heap_map_name(const heap_t* heap) {
    std::string name = heap->name != nullptr && heap->name[0] != '\0' ? heap->name : "unnamed";
    for (char& c : name) {
        const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
                           c == '-' || c == '.';
        if (!plain) c = '_';
    }
    return "heap-" + std::to_string(heap->id) + "-" + name + ".svg";
}

bool diag_heap_maps_write(const std::string& folder, const DiagInputs& inputs, const char* program, FILE* err) {
    if (!diag_folder_make(folder, program, err)) return false;
    bool written = true;
    for (u_int32_t id = 0; heap_t* heap = heap_find_by_id(id); ++id) {
        DiagOutput output(program, err);
        if (!output.open(folder + "/" + diag_heap_map_name(heap), inputs)) {
            written = false;
            continue;
        }
        diag_heap_map_draw(heap, output.file());
        written = output.commit() && written;
    }
    return written;
}
