#include "tools/dcore/core_writer.h"

#include <algorithm>

namespace {

constexpr size_t pieces_limit = 256;

void put_headers(const core_layout& layout, const core_places& places, core_stream& stream) {
    core_ehdr head = layout_ehdr(layout, places);
    stream_put(stream, &head, sizeof head);
    core_phdr notes = layout_notes_phdr(places);
    stream_put(stream, &notes, sizeof notes);
    uint64_t offset = places.content;
    for (const core_segment& segment : layout.segments) {
        core_phdr each = layout_phdr(layout, segment, offset);
        stream_put(stream, &each, sizeof each);
        offset += segment.content;
    }
}

// Walks over the content of all segments.
struct content_cursor {
    const core_layout& layout;
    size_t index = 0;
    uint64_t done = 0;  // of the segment
    uint64_t left;      // of all

    // The next pieces, together as many bytes as there is room for at most. Returns their number and length.
    size_t next(memory_piece (&pieces)[pieces_limit], size_t room, size_t& length);
};

size_t content_cursor::next(memory_piece (&pieces)[pieces_limit], size_t room, size_t& length) {
    size_t count = 0;
    length = 0;
    while (count < pieces_limit && length < room && left > 0) {
        const core_segment& segment = layout.segments[index];
        uint64_t rest = segment.content - done;
        if (rest == 0) {
            index++;
            done = 0;
            continue;
        }
        size_t step = static_cast<size_t>(std::min<uint64_t>(rest, room - length));
        pieces[count++] = {segment.start() + done, step};
        length += step;
        done += step;
        left -= step;
    }
    return count;
}

void put_content(const core_layout& layout, uint64_t total, target_memory& memory, core_stream& stream) {
    content_cursor cursor = {.layout = layout, .left = total};
    memory_piece pieces[pieces_limit];
    while (cursor.left > 0 && stream.error == 0) {
        std::span<unsigned char> room = stream_room(stream);
        if (stream.let_go_early) {
            memory_use_file(memory);
        }
        size_t length = 0;
        size_t count = cursor.next(pieces, room.size(), length);
        memory_read(memory, {pieces, count}, room.data());
        stream_filled(stream, length);
    }
}

}  // namespace

int core_write(const core_notes& notes, const core_places& places, target_memory& memory,
               core_stream& stream) {
    const core_layout& layout = *notes.layout;
    put_headers(layout, places, stream);
    notes_put(notes, stream);
    stream_put_zeros(stream, places.content - places.notes - places.notes_length);
    uint64_t end = places.section != 0 ? places.section : places.length;
    put_content(layout, end - places.content, memory, stream);
    threads_let_go(*stream.hold);
    if (places.section != 0) {
        core_shdr section = layout_shdr(layout);
        stream_put(stream, &section, sizeof section);
    }
    return stream_flush(stream);
}
