#include "tools/dcore/core_writer.h"

#include <algorithm>

namespace {

constexpr size_t pieces_limit = 256;

void write_headers(core_stream* stream, const core_layout& layout, const core_places& places) {
    core_ehdr head = layout_ehdr(layout, places);
    stream_write(stream, &head, sizeof head);
    core_phdr notes = layout_notes_phdr(places);
    stream_write(stream, &notes, sizeof notes);
    uint64_t offset = places.content;
    for (const core_segment& segment : layout.segments) {
        core_phdr each = layout_phdr(layout, segment, offset);
        stream_write(stream, &each, sizeof each);
        offset += segment.content;
    }
}

// Goes through the content of all segments.
struct content_cursor {
    const core_layout& layout;
    size_t index = 0;
    uint64_t done = 0;  // of the segment
    uint64_t left;      // of all segments

    // Stores the next pieces, of at most `limit` bytes together. Returns their number and their length.
    struct pieces_taken {
        size_t count, length;
    };
    pieces_taken next(size_t limit, memory_piece* pieces);
};

content_cursor::pieces_taken content_cursor::next(size_t limit, memory_piece* pieces) {
    size_t count = 0, length = 0;
    while (count < pieces_limit && length < limit && left > 0) {
        const core_segment& segment = layout.segments[index];
        uint64_t rest = segment.content - done;
        if (rest == 0) {
            index++;
            done = 0;
            continue;
        }
        size_t step = static_cast<size_t>(std::min<uint64_t>(rest, limit - length));
        pieces[count++] = {segment.start() + done, step};
        length += step;
        done += step;
        left -= step;
    }
    return {count, length};
}

void write_content(core_stream* stream, target_memory* memory, const core_layout& layout, uint64_t total) {
    content_cursor cursor = {.layout = layout, .left = total};
    memory_piece pieces[pieces_limit];
    while (cursor.left > 0 && stream->error == 0) {
        std::span<unsigned char> space = stream_space(stream);
        if (stream->detached_early) {
            memory_use_file(memory);
        }
        auto [count, length] = cursor.next(space.size(), pieces);
        memory_read(memory, {pieces, count}, space.data());
        stream_advance(stream, length);
    }
}

}  // namespace

int core_write(core_stream* stream, target_memory* memory, const core_notes& notes,
               const core_places& places) {
    const core_layout& layout = *notes.layout;
    write_headers(stream, layout, places);
    notes_write(stream, notes);
    stream_write_zeros(stream, places.content - places.notes - places.notes_length);
    uint64_t end = places.section != 0 ? places.section : places.length;
    write_content(stream, memory, layout, end - places.content);
    threads_detach(stream->hold);
    if (places.section != 0) {
        core_shdr section = layout_shdr(layout);
        stream_write(stream, &section, sizeof section);
    }
    return stream_flush(stream);
}
