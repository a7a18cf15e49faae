/* SPDX-License-Identifier: Apache-2.0 */
/*
 * Media files: file utilities, multi-part media files, the buffered binary and bit reader, and
 * playlists.
 *
 * Conventions of this family:
 *  - Paths accept both "/" and "\\" as separators (and "x:" drive prefixes where noted).
 *  - Text results are fresh heap strings; free them with upnp_free_impl. Null means null input
 *    or memory shortage.
 *  - File handles (upnp_file) and readers (upnp_file_b) are released with upnp_file_close and
 *    upnp_file_close_b. Every call accepts null and answers with a neutral result.
 *  - Sizes and positions are 64-bit on every platform (32-bit ARM included).
 *  - No call takes a library lock; a handle or reader must be used by one thread at a time.
 */
#ifndef TARNWICK_MEDIA_H
#define TARNWICK_MEDIA_H

#include <stddef.h>
#include <stdint.h>

#include "tarnwick/export.h"
#include "tarnwick/platform.h"
#include "tarnwick/types.h"

TW_EXTERN_C_BEGIN

/* Buffered reader over an open file (upnp_file_*_b); opaque, freed by upnp_file_close_b. */
typedef struct upnp_file_b upnp_file_b;

/* Whence values of the seek calls. */
#define UPNP_FILE_SEEK_SET 0
#define UPNP_FILE_SEEK_CUR 1
#define UPNP_FILE_SEEK_END 2

/* ---- Paths ------------------------------------------------------------------------------- */

/* A copy of path with every "\\" turned into "/"; null for null. */
TW_API char* upnp_file_fullpath(const char* path) TW_NOEXCEPT;
/* dir and name joined by exactly one "/": one trailing separator of dir and one leading
 * separator of name are dropped first. Null when either is null or empty. */
TW_API char* upnp_file_build_path(const char* dir, const char* name) TW_NOEXCEPT;
/* Splits at the last separator: *dir gets the text before it, *name the text after it, left null
 * when the separator ends the path. "x:\\name" keeps "x:\\" as dir. A path without a separator,
 * a leading one aside, is returned whole in both. Both outputs start null; either may be a null
 * pointer to skip it. Results are freed with upnp_free_impl. */
TW_API void upnp_file_split_path(const char* path, char** dir, char** name) TW_NOEXCEPT;
/* Creates every missing directory along path: 0, or -1 for a null or empty path or a directory
 * that could not be created, which is logged. */
TW_API int upnp_file_create_path(const char* path) TW_NOEXCEPT;
/* 0 when path exists, else the result of upnp_file_create_path. */
TW_API int upnp_file_ensure_path_exists(const char* path) TW_NOEXCEPT;
/* 1 when path is a regular file, else 0. */
TW_API int upnp_is_file(const char* path) TW_NOEXCEPT;
/* 1 when path exists as a file, directory or anything else, else 0. */
TW_API int upnp_file_exists(const char* path) TW_NOEXCEPT;

/* ---- Directory trees --------------------------------------------------------------------- */

/* Unlinks every entry the directory walk yields for dir; sub-directories are not removed.
 * The directory walk skips names starting with '.' and "lost+found", so those stay here and in
 * the tree removals below; a directory holding them is then not removed. */
TW_API void upnp_file_empty_dir(const char* dir) TW_NOEXCEPT;
/* Removes dir with everything below it. Links are removed, never followed. */
TW_API void upnp_file_remove_dir_tree(const char* dir) TW_NOEXCEPT;
/* Removes everything below dir and keeps dir itself. */
TW_API void upnp_file_remove_dir_sub_tree(const char* dir) TW_NOEXCEPT;
/* Returns at once; a background thread removes the tree of a copy of dir. Null or "" does
 * nothing. Completion is not reported: poll upnp_file_exists. */
TW_API void upnp_file_remove_dir_tree_background(const char* dir) TW_NOEXCEPT;

/* ---- Files ------------------------------------------------------------------------------- */

/* Opens for reading / writing / appending; the last two create a missing file with mode 0644,
 * and writing does not truncate an existing one. Null when the path is null, the open fails or
 * memory is short. Read and append handles know the size at open time. Close with
 * upnp_file_close. */
TW_API upnp_file* upnp_file_open_read(const char* path) TW_NOEXCEPT;
TW_API upnp_file* upnp_file_open_write(const char* path) TW_NOEXCEPT;
TW_API upnp_file* upnp_file_open_append(const char* path) TW_NOEXCEPT;
/* Closes the descriptor and frees the handle with its part list; null is ignored. */
TW_API void upnp_file_close(upnp_file* handle) TW_NOEXCEPT;
/* Frees the handle and its part list but leaves the descriptor open; null is ignored. */
TW_API void upnp_file_keep_open(upnp_file* handle) TW_NOEXCEPT;
/* 1 when the current position is at or past the size known at open time, or for null; else 0. */
TW_API int upnp_file_eof(upnp_file* handle) TW_NOEXCEPT;
/* Reads one line of at most size - 1 bytes into buffer, keeping the line feed, NUL-terminated,
 * and leaves the file just behind the line feed. buffer, or null at end of file, on a read error
 * or for null arguments or size < 2. */
TW_API char* upnp_file_gets(char* buffer, int32_t size, upnp_file* handle) TW_NOEXCEPT;
/* Copies source to destination in blocks of 8192 bytes; an existing destination is replaced.
 * 0, or -1 when a file cannot be opened or a read or write fails. */
TW_API int upnp_file_copy(const char* source, const char* destination) TW_NOEXCEPT;

/* ---- Media files ------------------------------------------------------------------------- */
/*
 * A media file may be one logical file stored as several consecutive part files. Open the first
 * part with upnp_mediafile_open_read, then describe the whole logical file with
 * upnp_mediafile_add_part, in order, starting with that first part. Once parts are listed, reads
 * continue into the next part and seeks locate the right part; the handle's size becomes the sum
 * of the part lengths.
 */

/* A handle on path with complete = 1 and position 0; null on failure. */
TW_API upnp_file* upnp_mediafile_open_read(const char* path) TW_NOEXCEPT;
/* Appends a part to the handle's list; path is copied, length is in bytes. 0, 2 for a null
 * handle or path, 8 when memory is short, leaving the list unchanged. The first part added is
 * taken to be the file the handle has open. */
TW_API int upnp_mediafile_add_part(upnp_file* handle, const char* path,
                                   uint64_t length) TW_NOEXCEPT;
/* Fills stat for path: the stat result, 0 on success; when stat fails and the file can still be
 * opened, 0 with the size the open found. -1 for null arguments. */
TW_API int upnp_mediafile_stat(const char* path, upnp_stat* stat) TW_NOEXCEPT;
/* Reads up to count bytes, continuing into the following parts: bytes read, 0 at the end; -1
 * for a null handle, a null buffer with count > 0 or a failed read. An empty read of a handle
 * that is not complete is retried once after 50 ms: the file may still be growing. */
TW_API int32_t upnp_mediafile_read(upnp_file* handle, void* buffer, uint32_t count) TW_NOEXCEPT;
/* Seeks in the logical file, whence UPNP_FILE_SEEK_*, opening the part that holds the target:
 * the new position, or -1 for a null handle, a negative target or a failed seek or open. */
TW_API int64_t upnp_mediafile_seek(upnp_file* handle, int64_t offset, int32_t whence) TW_NOEXCEPT;

/* ---- Buffered reader --------------------------------------------------------------------- */

/* Opens path with a read buffer of buffer_size bytes, already filled; null when the path is null,
 * buffer_size is 0, the open fails or memory is short. Close with upnp_file_close_b. */
TW_API upnp_file_b* upnp_file_open_read_b(const char* path, uint32_t buffer_size) TW_NOEXCEPT;
/* Closes the file and frees the reader; null is ignored. */
TW_API void upnp_file_close_b(upnp_file_b* reader) TW_NOEXCEPT;
/* Copies up to count bytes: the number delivered, short only at end of file; -1 for a null
 * reader or a null buffer with count > 0. */
TW_API int32_t upnp_file_read_b(upnp_file_b* reader, void* buffer, uint32_t count) TW_NOEXCEPT;
/* The next byte, 0..255, or -1 at end of file or for null. */
TW_API int32_t upnp_file_read_byte(upnp_file_b* reader) TW_NOEXCEPT;
/* Reads the next non-empty line without its CR/LF into buffer, NUL-terminated: at most
 * size - 1 bytes, the rest of a longer line stays for the next call. The length stored, or -1
 * when the end of file came first, for null arguments or size < 2. */
TW_API int32_t upnp_file_read_line_b(upnp_file_b* reader, char* buffer, uint32_t size) TW_NOEXCEPT;
/* The reader's logical position: file position less the bytes still buffered; -1 for null. */
TW_API int64_t upnp_file_tell_b(upnp_file_b* reader) TW_NOEXCEPT;
/* 1 when the logical position is at or past the size known at open time, or for null; else 0. */
TW_API int upnp_file_eof_b(upnp_file_b* reader) TW_NOEXCEPT;
/* Seeks, whence UPNP_FILE_SEEK_*, and drops any bits held by the bit reader: the new position;
 * 0 for an unknown whence, moving nothing; -1 for null, a negative target or a failed seek. */
TW_API int64_t upnp_file_seek_b(upnp_file_b* reader, int64_t offset, int32_t whence) TW_NOEXCEPT;

/* Little-endian integers of 2, 4 and 8 bytes; the _be calls read big-endian. Bytes missing at
 * the end of the file read as 0; a null reader gives 0. */
TW_API uint16_t upnp_file_read_word(upnp_file_b* reader) TW_NOEXCEPT;
TW_API uint32_t upnp_file_read_dword(upnp_file_b* reader) TW_NOEXCEPT;
TW_API uint64_t upnp_file_read_qword(upnp_file_b* reader) TW_NOEXCEPT;
TW_API uint16_t upnp_file_read_word_be(upnp_file_b* reader) TW_NOEXCEPT;
TW_API uint32_t upnp_file_read_dword_be(upnp_file_b* reader) TW_NOEXCEPT;
TW_API uint64_t upnp_file_read_qword_be(upnp_file_b* reader) TW_NOEXCEPT;

/* Bit reader. Bits are loaded 32 at a time with upnp_file_read_dword, little-endian.
 * upnp_file_read_bit answers bit 15 of the held word, not bit 31, and then shifts the word left
 * by one: that is this reader's defined behaviour. 0 for null. */
TW_API uint32_t upnp_file_read_bit(upnp_file_b* reader) TW_NOEXCEPT;
/* n bits, n from 0 to 16; others give 0 and consume nothing. When n bits are held they come
 * from the top of the word; otherwise the value is built bit by bit with upnp_file_read_bit and
 * comes out doubled, v * 2: both are defined behaviour. 0 for null. */
TW_API uint32_t upnp_file_read_nbits(upnp_file_b* reader, uint32_t n) TW_NOEXCEPT;

/* ---- Playlists --------------------------------------------------------------------------- */
/*
 * Reading takes the playlist files users keep next to their music: WPL (also Zune's .zpl, the
 * same format), M3U and extended M3U (.m3u, .m3u8) and PLS. Writing gives WPL or extended M3U.
 *
 * Reading is forgiving and never fails on a bad entry. Texts become valid UTF-8 whatever the
 * file holds: a UTF-8 or UTF-16 byte order mark is honoured, and a file that is not UTF-8 is
 * taken as Latin-1 (which is what a Windows .m3u holds). CR LF, CR and LF all end lines; a line
 * longer than UPNP_PLAYLIST_MAX_LINE bytes is cut there. Each entry keeps its source as written
 * and says where it leads:
 *  - a URL other than file: ("http://...") stays a URL;
 *  - everything else is a local path: file: URLs are decoded, "\" separators become "/", and a
 *    relative path is taken from the playlist's folder, with "." and ".." folded. A path that
 *    does not lead to a regular file (a drive letter, an absolute path of another machine) is
 *    tried once more by its last components below the playlist's folder ("C:\Music\A\t.mp3"
 *    finds "A/t.mp3" or "t.mp3" there), else kept and marked missing.
 * Files above UPNP_PLAYLIST_MAX_FILE bytes are not read; entries past UPNP_PLAYLIST_MAX_ENTRIES
 * are dropped. Records come from the accounted allocator and go with upnp_playlist_free.
 */
#define UPNP_PLAYLIST_MAX_FILE (16u * 1024u * 1024u)
#define UPNP_PLAYLIST_MAX_LINE 4096u
#define UPNP_PLAYLIST_MAX_ENTRIES 65536u

/* Formats. UNKNOWN asks the reader to tell by the content. */
#define UPNP_PLAYLIST_UNKNOWN 0
#define UPNP_PLAYLIST_WPL 1
#define UPNP_PLAYLIST_M3U 2
#define UPNP_PLAYLIST_PLS 3

/* Where an entry leads. */
#define UPNP_PLAYLIST_ENTRY_FILE 0    /* location is a regular file */
#define UPNP_PLAYLIST_ENTRY_MISSING 1 /* a local path that leads to no regular file */
#define UPNP_PLAYLIST_ENTRY_URL 2     /* location is the URL as written */

typedef struct upnp_playlist_entry {
  char* src;        /* the entry as written (made UTF-8), never null */
  char* location;   /* the resolved path ("/"-separated) or the URL, never null */
  char* title;      /* from #EXTINF or TitleN, else null */
  int32_t duration; /* seconds from #EXTINF or LengthN; -1 when unknown */
  int32_t kind;     /* UPNP_PLAYLIST_ENTRY_* */
} upnp_playlist_entry;

typedef struct upnp_playlist {
  char* title;                  /* WPL <title> or M3U #PLAYLIST:, else null */
  int32_t format;               /* the format read (UPNP_PLAYLIST_*), or the one made */
  uint32_t count;               /* entries, in playlist order */
  upnp_playlist_entry* entries; /* null when count is 0 */
} upnp_playlist;

/* Reads the playlist file at path; its format is told by the extension (.wpl, .zpl, .m3u,
 * .m3u8, .pls), else by the content. Null for a null path, a file that cannot be read or is too
 * large, or a memory shortage; a file without entries gives a record with count 0. */
TW_API upnp_playlist* upnp_playlist_read(const char* path) TW_NOEXCEPT;
/* The same from length bytes of text (NUL bytes count as line ends) in format (UNKNOWN: by the
 * content); relative entries are taken from base_dir, or from the current directory when it is
 * null. Null for null text or a memory shortage. */
TW_API upnp_playlist* upnp_playlist_parse(const char* text, uint32_t length, int32_t format,
                                          const char* base_dir) TW_NOEXCEPT;
/* An empty playlist to fill with upnp_playlist_add_entry; title may be null. Its format is
 * UPNP_PLAYLIST_UNKNOWN. Null when memory is short. */
TW_API upnp_playlist* upnp_playlist_new(const char* title) TW_NOEXCEPT;
/* Appends an entry whose src is written as given (title may be null, duration -1 for unknown);
 * its location is src, its kind URL or FILE by the text alone. 0, or -1 for a null or empty src,
 * a full playlist or a memory shortage (the playlist is then unchanged). */
TW_API int32_t upnp_playlist_add_entry(upnp_playlist* list, const char* src, const char* title,
                                       int32_t duration) TW_NOEXCEPT;
/* The playlist as WPL: an XML declaration and a wpl instruction, then smil with head (a
 * Generator meta and the title) and body/seq with one media element per entry, its src escaped
 * by the XML writer. As extended M3U: "#EXTM3U", "#PLAYLIST:" with the title, and per entry an
 * "#EXTINF:" line when it has a title or duration, then its src; line breaks inside texts become
 * blanks. UTF-8 either way. Free with upnp_string_free; null for null or a memory shortage. */
TW_API upnp_string* upnp_playlist_to_wpl(const upnp_playlist* list) TW_NOEXCEPT;
TW_API upnp_string* upnp_playlist_to_m3u(const upnp_playlist* list) TW_NOEXCEPT;
/* Writes the playlist to path in format (WPL or M3U) through a file beside it that then
 * replaces path, so a failed write leaves the old file. 0, or -1 (null arguments, another
 * format, a write that failed). */
TW_API int32_t upnp_playlist_write(const upnp_playlist* list, const char* path,
                                   int32_t format) TW_NOEXCEPT;
/* Frees the record, its entries and their texts; null is ignored. */
TW_API void upnp_playlist_free(upnp_playlist* list) TW_NOEXCEPT;

TW_EXTERN_C_END

#endif /* TARNWICK_MEDIA_H */
