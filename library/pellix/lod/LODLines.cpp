#include "pellix/lod/LODLines_p.h"

#include <algorithm>

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#define PXLOD_X86 1
#endif

namespace {

using pxlod::LineGroup;
using pxlod::LineSize;

// Whether each of the LineGroup lines at `p` ends with its LF after eight characters.
inline bool groupShape(const unsigned char* p)
{
    bool ends = true;
    for (size_t i = 0; i < LineGroup; ++i)
        ends &= p[LineSize * i + 8] == '\n';
    return ends;
}

size_t convertPortable(const unsigned char* p, size_t lines, uint32_t* words)
{
    size_t n = 0;
    for (; n < lines; n += LineGroup) {
        const unsigned char* group = p + n * LineSize;
        if (!groupShape(group))
            break;
        bool digits = true;
        for (size_t i = 0; i < LineGroup; ++i)
            digits &= pxlod::eightDigits(group + i * LineSize, words + n + i);
        if (!digits)
            break;
    }
    return n;
}

#if PXLOD_X86
// Four lines (32 bytes of digits) in one 256-bit register: line i's digits in bytes 8i-8i+7.
__attribute__((target("avx2"))) inline __m256i fourLines(const unsigned char* p)
{
    long long q[4];
    for (int i = 0; i < 4; ++i)
        std::memcpy(&q[i], p + LineSize * size_t(i), 8);
    return _mm256_set_epi64x(q[3], q[2], q[1], q[0]);
}

// Each character's digit value, and into `valid` whether it is a digit: c - '0' at most 9, or
// c folded to lower case minus 'a' at most 5 (only 'A'-'F' and 'a'-'f' fold into that range).
// A digit's value is its low four bits, plus 9 for a letter. Returns two digits a 16-bit lane,
// the first one high.
__attribute__((target("avx2"))) inline __m256i digitPairs(__m256i c, __m256i* valid)
{
    const __m256i d = _mm256_sub_epi8(c, _mm256_set1_epi8('0'));
    const __m256i isDigit = _mm256_cmpeq_epi8(_mm256_min_epu8(d, _mm256_set1_epi8(9)), d);
    const __m256i l =
        _mm256_sub_epi8(_mm256_or_si256(c, _mm256_set1_epi8(0x20)), _mm256_set1_epi8('a'));
    const __m256i isLetter = _mm256_cmpeq_epi8(_mm256_min_epu8(l, _mm256_set1_epi8(5)), l);
    *valid = _mm256_and_si256(*valid, _mm256_or_si256(isDigit, isLetter));
    const __m256i v = _mm256_add_epi8(_mm256_and_si256(c, _mm256_set1_epi8(0x0F)),
                                      _mm256_and_si256(isLetter, _mm256_set1_epi8(9)));
    return _mm256_maddubs_epi16(v, _mm256_set1_epi16(0x0110)); // 16 x first + second
}

__attribute__((target("avx2"))) size_t convertAvx2(const unsigned char* p, size_t lines,
                                                   uint32_t* words)
{
    // Each word's bytes come first digits first: reversed into the word's order.
    const __m256i reverse = _mm256_setr_epi8(3, 2, 1, 0, 7, 6, 5, 4, 11, 10, 9, 8, 15, 14, 13, 12,
                                             3, 2, 1, 0, 7, 6, 5, 4, 11, 10, 9, 8, 15, 14, 13, 12);
    size_t n = 0;
    for (; n < lines; n += LineGroup) {
        const unsigned char* group = p + n * LineSize;
        if (!groupShape(group))
            break;
        __m256i valid = _mm256_set1_epi8(-1);
        const __m256i first = digitPairs(fourLines(group), &valid);
        const __m256i second = digitPairs(fourLines(group + 4 * LineSize), &valid);
        if (_mm256_movemask_epi8(valid) != -1)
            break;
        // Packed per 128-bit half: lines 0 1 4 5 | 2 3 6 7; put in order, then reversed.
        const __m256i packed =
            _mm256_permute4x64_epi64(_mm256_packus_epi16(first, second), _MM_SHUFFLE(3, 1, 2, 0));
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(words + n),
                            _mm256_shuffle_epi8(packed, reverse));
    }
    return n;
}
#endif

// Converts up to `lines` (a multiple of LineGroup) lines at `p`.
using Convert = size_t (*)(const unsigned char*, size_t, uint32_t*);

Convert chooseConvert()
{
#if PXLOD_X86
    if (__builtin_cpu_supports("avx2"))
        return convertAvx2;
#endif
    return convertPortable;
}

// Whole groups of lines within `room`, LineBatch and the bytes available.
size_t groupedLines(size_t available, size_t room)
{
    const size_t lines = std::min({room, pxlod::LineBatch, available / LineSize});
    return lines - lines % LineGroup;
}

} // namespace

size_t pxlod::convertLines(const unsigned char* p, size_t available, uint32_t* words, size_t room)
{
    static const Convert convert = chooseConvert();
    return convert(p, groupedLines(available, room), words);
}

size_t pxlod::convertLinesPortable(const unsigned char* p, size_t available, uint32_t* words,
                                   size_t room)
{
    return convertPortable(p, groupedLines(available, room), words);
}
