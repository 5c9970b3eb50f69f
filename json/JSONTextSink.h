// Internal to the JSON library (not installed): the byte tables and the output cursor that the
// writers share, so that they move text in runs instead of one byte or one std::string call at
// a time.
#ifndef JSON_JSONTEXTSINK_H_
#define JSON_JSONTEXTSINK_H_

#include <array>
#include <cstddef>
#include <cstring>
#include <string>

namespace JSON {
namespace text {

// What a byte of a string needs when it is escaped: PLAIN bytes are copied, END (the NUL) ends
// the text, any other entry is the letter written after the backslash ('u' for \u00XX).
constexpr unsigned char PLAIN = 0;
constexpr unsigned char END = 1;

constexpr std::array<unsigned char, 256> MakeEscapeTable() {
    std::array<unsigned char, 256> table{};
    table[0] = END;
    for (int c = 0x01; c < 0x20; ++c) table[static_cast<size_t>(c)] = 'u';
    table['\b'] = 'b';
    table['\t'] = 't';
    table['\n'] = 'n';
    table['\f'] = 'f';
    table['\r'] = 'r';
    table['"'] = '"';
    table['\\'] = '\\';
    return table;
}

constexpr std::array<unsigned char, 256> ESCAPE = MakeEscapeTable();

// Returns the first byte at or after p that is not PLAIN; the NUL ends every text, so the scan
// never passes it.
inline const unsigned char* SkipPlain(const unsigned char* p) {
    // Four bytes per round: the branch per byte is what costs, not the loads.
    for (;;) {
        if (ESCAPE[p[0]] != PLAIN) return p;
        if (ESCAPE[p[1]] != PLAIN) return p + 1;
        if (ESCAPE[p[2]] != PLAIN) return p + 2;
        if (ESCAPE[p[3]] != PLAIN) return p + 3;
        p += 4;
    }
}

// Hands the escaped form of the NUL-terminated text to put(const char*, size_t): runs of plain
// bytes in one piece, each escape as its own piece.
template <typename Put>
void EscapeRuns(const char* text, Put&& put) {
    static constexpr char szHex[] = "0123456789abcdef";
    const unsigned char* p = reinterpret_cast<const unsigned char*>(text);
    for (;;) {
        const unsigned char* stop = SkipPlain(p);
        if (stop != p) put(reinterpret_cast<const char*>(p), static_cast<size_t>(stop - p));
        const unsigned char kind = ESCAPE[*stop];
        if (kind == END) return;
        if (kind == 'u') {
            const char escaped[6] = {'\\', 'u', '0', '0', szHex[*stop >> 4], szHex[*stop & 0x0F]};
            put(escaped, sizeof escaped);
        } else {
            const char escaped[2] = {'\\', static_cast<char>(kind)};
            put(escaped, sizeof escaped);
        }
        p = stop + 1;
    }
}

// Collects output in a block of its own and appends it to a std::string a block at a time, so
// a token costs a few stores rather than a std::string call. Finish appends what is left; an
// exception thrown before that leaves the string with whole blocks only.
class TextSink {
public:
    explicit TextSink(std::string& out) : m_out(out) {}
    TextSink(const TextSink&) = delete;
    TextSink& operator=(const TextSink&) = delete;

    // Where the next n bytes go (n at most SMALL); Advance(n) keeps them.
    char* Room(size_t n) {
        if (BUFFER_SIZE - m_nUsed < n) Flush();
        return m_buf + m_nUsed;
    }
    void Advance(size_t n) { m_nUsed += n; }
    void Put(char c) {
        if (m_nUsed == BUFFER_SIZE) Flush();
        m_buf[m_nUsed++] = c;
    }
    void Put(const char* p, size_t n) {
        if (BUFFER_SIZE - m_nUsed < n) {
            Flush();
            // A long run goes straight to the string instead of through the block.
            if (n > BUFFER_SIZE / 2) {
                m_out.append(p, n);
                return;
            }
        }
        std::memcpy(m_buf + m_nUsed, p, n);
        m_nUsed += n;
    }
    void PutRepeated(char c, size_t n) {
        while (n > 0) {
            if (m_nUsed == BUFFER_SIZE) Flush();
            const size_t chunk = n < BUFFER_SIZE - m_nUsed ? n : BUFFER_SIZE - m_nUsed;
            std::memset(m_buf + m_nUsed, c, chunk);
            m_nUsed += chunk;
            n -= chunk;
        }
    }

    // The string with every byte written so far, for the end of the output or for code that
    // appends to it by itself before the sink goes on.
    std::string& Finish() {
        Flush();
        return m_out;
    }

    static constexpr size_t SMALL = 16;

private:
    void Flush() {
        m_out.append(m_buf, m_nUsed);
        m_nUsed = 0;
    }

    static constexpr size_t BUFFER_SIZE = 8192;
    std::string& m_out;
    size_t m_nUsed = 0;
    char m_buf[BUFFER_SIZE];
};

}  // namespace text
}  // namespace JSON

#endif  // JSON_JSONTEXTSINK_H_
