// The wire vocabulary of the TAVRIN protocol, shared by the client (db/client)
// and the server (server/): the names of the shared-memory objects, the layout
// of the message area and its packets, the handshake, the request codes and
// the markers inside a statement's request, the field tags, the column type
// codes and the answer kinds.
//
// Both ends include this one header, so a code is defined once and a change
// of the protocol is made in one place. The bytes of a statement's request are
// the token codes of the keywords and symbols they stand for (the client's
// tokenizer, db/client/tokenizer.h, numbers its tokens so); the client checks
// at compile time that both agree. Building requests is the client's
// business, decoding them the server's; this header holds no code beyond the
// two word accessors of the message area.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

// ---------------------------------------------------------------------------
// Named objects
//
// Every object is the POSIX shared-memory object "/<namespace><name>" (see
// db/ipc/named.h). The server creates them all and holds the liveness lock on
// DBOBJ_SERVER while it lives; a client opens DBOBJ_SERVER first to learn
// whether a server runs at all.

inline constexpr const char *DBOBJ_AREA = "TavrinDB_Shared_Memory";         // message area
inline constexpr const char *DBOBJ_OWNER = "TavrinDB_Shared_Memory_Socket"; // owner word
inline constexpr const char *DBOBJ_CLIENT = "TavrinDB_Client";            // server -> client: chunk
inline constexpr const char *DBOBJ_SERVER_ACK = "TavrinDB_Server_Ack";    // client took a chunk
inline constexpr const char *DBOBJ_CLIENT_ACK = "TavrinDB_Client_Ack";    // server took a chunk
inline constexpr const char *DBOBJ_ACTIVATE = "TavrinDB_Client_Activate"; // parked client's turn
inline constexpr const char *DBOBJ_MUTEX = "TavrinDB_Mutex";              // one exchange at a time
inline constexpr const char *DBOBJ_SERVER = "TavrinDB_Server"; // client -> server: chunk; liveness

// All of them, in the order a server creates them (its liveness object last
// here, although it takes that one first), e.g. for removing them.
inline constexpr const char *DBOBJ_ALL[] = {DBOBJ_AREA,       DBOBJ_OWNER,      DBOBJ_CLIENT,
                                            DBOBJ_SERVER_ACK, DBOBJ_CLIENT_ACK, DBOBJ_ACTIVATE,
                                            DBOBJ_MUTEX,      DBOBJ_SERVER};
inline constexpr size_t DBOBJ_COUNT = sizeof DBOBJ_ALL / sizeof DBOBJ_ALL[0];

// ---------------------------------------------------------------------------
// Message area and packets
//
// The message area holds one chunk at a time: the channel word at offset 0,
// the chunk length at offset 4, the server's instance id (64 bits) at offset
// 8 and the chunk's bytes from offset 16. A message
// (a request or an answer) travels in packets; each packet's first word is
// the packet length, the first packet's second word the message length, and
// each packet is sent in chunks that fit the area. Words in the area and in
// packet headers are in the machine's byte order (both ends run on one
// machine); the fields inside requests and answers are little-endian.

enum : int {
  DBCOMM_AREA_SIZE = 10028,    // bytes of the message area
  DBCOMM_OLD_AREA_SIZE = 10020, // the area of servers before the instance id
  DBCOMM_CHANNEL_AT = 0,       // offset of the channel word
  DBCOMM_LENGTH_AT = 4,        // offset of the chunk length (handshake: process id)
  DBCOMM_INSTANCE_AT = 8,      // offset of the server's instance id (8 bytes)
  DBCOMM_PAYLOAD_AT = 16,      // offset of the chunk's bytes
  DBCOMM_PAYLOAD_SIZE = 10012, // bytes from offset 16 to the end of the area
  DBCOMM_PACKET_MAX = 10000,   // message bytes that still go in one packet
  DBCOMM_FIRST_HEAD = 8,       // header of a first packet: packet length, message length
  DBCOMM_NEXT_HEAD = 4,        // header of a further packet: packet length
  DBCOMM_FIRST_DATA = 9992,    // message bytes in a full first packet
  DBCOMM_NEXT_DATA = 9996,     // message bytes in a full further packet
  DBCOMM_OWNER_SIZE = 4,       // bytes of the owner word's object
};
static_assert(DBCOMM_PAYLOAD_SIZE == DBCOMM_AREA_SIZE - DBCOMM_PAYLOAD_AT);
static_assert(DBCOMM_FIRST_DATA == DBCOMM_PACKET_MAX - DBCOMM_FIRST_HEAD);
static_assert(DBCOMM_NEXT_DATA == DBCOMM_PACKET_MAX - DBCOMM_NEXT_HEAD);

// Every chunk a client writes carries the instance id its handshake was
// given; the server compares it with its own, so a client of an earlier run
// of the server (killed and started again, channel numbers given anew) is
// never served by its successor. Zero is no instance: the handshake's word.

// A chunk the server refuses is acknowledged with the channel word replaced
// by one of these codes, so that its sender stops and gives the exchange up
// instead of waiting for an answer that never comes; for a dropped chunk the
// length word holds the reason (DBDROP_*).
inline constexpr uint32_t DBCOMM_STALE = 0xFFFFFFFCu;   // another instance's client
inline constexpr uint32_t DBCOMM_DROPPED = 0xFFFFFFFBu; // the request was dropped

enum : uint32_t {
  DBDROP_FRAMING = 1,    // chunk or packet length out of range, more bytes than announced
  DBDROP_CHANNEL = 2,    // no such channel
  DBDROP_PROCESS = 3,    // the writer is not the channel's process
  DBDROP_SIZE = 4,       // announced request longer than the server takes
  DBDROP_INCOMPLETE = 5, // the request stayed incomplete past the time limit
};

// The owner word: free, or the channel of a parked client whose turn it is.
inline constexpr int32_t DBCOMM_OWNER_FREE = -1;

// The parking notice: a one-byte answer meaning "the answer comes later;
// give the exchange up and wait for DBOBJ_ACTIVATE". As a chunk: packet
// length 9, message length 1, the byte.
inline constexpr unsigned char DBCOMM_PARKED = '-';
inline constexpr size_t DBCOMM_PARKED_CHUNK = 9;

// ---------------------------------------------------------------------------
// Handshake
//
// The client writes DBHS_CHANNEL as the channel word, its process id as the
// length word, zero as the instance id and its version text (zero-terminated)
// as the payload. The server answers in place: the channel number (>= 0) or a
// refusal below, its own process id in the length word and its instance id
// (a random number drawn at its start, never zero); with a refusal the
// payload's first word is the number of channels the server gives out.

inline constexpr uint32_t DBHS_CHANNEL = 0xFFFFFFFFu; // channel word of a handshake
#define DBCOMM_VERSION "2.2.0"                        // the one version both ends speak

enum : int {
  DBHS_REFUSED_VERSION = -1, // the server does not speak the client's version
  DBHS_REFUSED_FULL = -2,    // all channels in use
  DBHS_REFUSED_PROCESS = -3, // the claimed process does not exist
};

// ---------------------------------------------------------------------------
// Requests: the first byte of a request names what it asks for.

enum : unsigned char {
  DBREQ_MESSAGE = '0',             // message text: DBTAG_MESSAGE string (no answer)
  DBREQ_OPEN = '1',                // open the database: name
  DBREQ_CLOSE = '2',               // close the connection (no answer)
  DBREQ_CREATE_DATABASE = '3',     // CREATE DATABASE name; also create-and-open
  DBREQ_DROP_DATABASE = '4',       // DROP DATABASE [name]
  DBREQ_CREATE_TABLE = '5',        // name, per attribute: name, type [int length] [NULL]; END
  DBREQ_DROP_TABLE = '6',          // name
  DBREQ_CREATE_INDEX = '7',        // index name, table name, attribute names, END
  DBREQ_CREATE_UNIQUE_INDEX = '8', // followed by the whole DBREQ_CREATE_INDEX request
  DBREQ_DROP_INDEX = '9',          // name
  DBREQ_SELECT = 'C',              // select body, END
  DBREQ_INSERT = 'E',              // table, attribute names, VALUES, literals, END
  DBREQ_DELETE = 'G',              // table [WHERE expression WHERE], END
  DBREQ_UPDATE = 'I',              // table, (name literal)..., [WHERE expression WHERE], END
  DBREQ_BEGIN = 'J',               // BEGIN
  DBREQ_COMMIT = 'K',              // COMMIT and END
  DBREQ_ABORT = 'M',               // ABORT
  DBREQ_DECLARE = 'N',             // cursor name, select body, END
  DBREQ_FETCH = 'O',               // [ALL] cursor name
  DBREQ_CLOSE_CURSOR = 'P',        // cursor name
  DBREQ_SET_STATIC = 'Q',          // table name
  DBREQ_SAVE = 'R',                // SAVE
  DBREQ_SHOW = 'S',                // what (DBMARK_DATABASES ...), [name]
  DBREQ_MAX = 'T',                 // int n, or NULL for no limit
  DBREQ_SET_SECURE = 'U',          // table name
  DBREQ_STOP = 'V',                // end the server
  DBREQ_NOTICE = 'W',              // a client announces itself (no answer)
  DBREQ_SET_DATABASE = 'X',        // database name
  DBREQ_LOCKS = 'Y',               // list who holds and who waits for write locks
  DBREQ_CANCEL = 'Z', // stop the statement the channel waits for; sent while parked (no answer)
};

// ---------------------------------------------------------------------------
// Field tags: a tag byte, then the field.

enum : unsigned char {
  DBTAG_NAME = 'a',    // name: 16-bit length incl. zero byte, text, zero byte
  DBTAG_MESSAGE = 'b', // message text: 16-bit length, text
  DBTAG_SHORT = 'c',   // short value: 2 bytes
  DBTAG_INT = 'd',     // integer value: 4 bytes
  DBTAG_FLOAT = 'e',   // float value: 8 bytes
  DBTAG_STRING = 'f',  // string value: 16-bit length, bytes (also a table qualifier)
};

// ---------------------------------------------------------------------------
// Markers inside a statement's request.

enum : unsigned char {
  DBMARK_END = 'x',        // end of a statement, of an attribute list
  DBMARK_DISTINCT = '7',   // SELECT DISTINCT
  DBMARK_STAR = 'W',       // * in a select list (after a qualifier: T.*)
  DBMARK_COUNT = 'C',      // COUNT(*) in a select list
  DBMARK_MIN = 'I',        // MIN(attribute)
  DBMARK_MAX = 'J',        // MAX(attribute)
  DBMARK_FROM = 'v',       // ends the select list; table names (and aliases) follow
  DBMARK_WHERE = 'w',      // opens and closes a WHERE expression
  DBMARK_ORDER_BY = 'H',   // opens and closes an ORDER BY list
  DBMARK_DESC = ']',       // after an ORDER BY attribute
  DBMARK_DOT = 'D',        // qualified attribute: the qualifier's name, the attribute's
  DBMARK_SUBSELECT = 'u',  // a subquery's select body follows (a value)
  DBMARK_EXISTS = '=',     // an EXISTS subquery's select body follows
  DBMARK_EXISTS_END = 'L', // ends an EXISTS subquery
  DBMARK_VALUES = 'X',     // INSERT: the values follow
  DBMARK_NULL = 'F',       // CREATE TABLE: NOT NULL; MAX: no limit
  DBMARK_ALL = '%',        // FETCH ALL
  DBMARK_DATABASES = 0xF6, // SHOW DATABASES
  DBMARK_TABLES = 0xFC,    // SHOW TABLES
  DBMARK_INDICES = 0xE4,   // SHOW INDICES; after DBMARK_TABLE: INDICES ON TABLE
  DBMARK_TABLE = '?',      // SHOW TABLE name
  DBMARK_INDEX = '9',      // SHOW INDEX name
};

// Operators of a WHERE expression, written after their operands (postfix).
enum : unsigned char {
  DBOP_LT = 'N',      // <
  DBOP_GT = 'O',      // >
  DBOP_LE = 'P',      // <=
  DBOP_GE = 'Q',      // >=
  DBOP_EQ = 'R',      // =
  DBOP_NE = 'S',      // <>
  DBOP_LIKE = 'V',    // LIKE
  DBOP_BETWEEN = 'Y', // operand, low, high
  DBOP_IN = 'M',      // operand, items..., DBTAG_INT count
  DBOP_AND = 'y',     // AND
  DBOP_OR = 'z',      // OR
  DBOP_NOT = 'T',     // NOT
};

// ---------------------------------------------------------------------------
// Column type codes (CREATE TABLE and the column headers of answers).

enum : unsigned char {
  DBTYPE_CHARACTER = '0', // CHARACTER(n): n counts the terminating zero
  DBTYPE_SMALLINT = '1',  // 16-bit integer
  DBTYPE_INTEGER = '2',   // 32-bit integer
  DBTYPE_FLOAT = '3',     // 64-bit float
  DBTYPE_DATE = '4',      // 4 bytes
  DBTYPE_TIME = '5',      // 3 bytes
  DBTYPE_TIMESTAMP = '6', // 12 bytes
  DBTYPE_BINARY = 0xA6,   // BINARY(n)
};

// ---------------------------------------------------------------------------
// Answers: the first byte names the kind.

enum : unsigned char {
  DBANS_ERROR = '0',   // DBTAG_MESSAGE text follows
  DBANS_DONE = '1',    // nothing follows
  DBANS_TUPLES = '2',  // column count, row count, headers, values
  DBANS_COUNT = '3',   // one 32-bit number
  DBANS_TUPLES2 = '4', // as DBANS_TUPLES: the rows of a FETCH
};

// ---------------------------------------------------------------------------
// Words of the message area and of packet headers (machine byte order; p
// must have 4 or 8 bytes).

inline uint32_t DBwire_get32(const unsigned char *p) {
  uint32_t v;
  std::memcpy(&v, p, 4);
  return v;
}

inline void DBwire_put32(unsigned char *p, uint32_t v) { std::memcpy(p, &v, 4); }

inline uint64_t DBwire_get64(const unsigned char *p) {
  uint64_t v;
  std::memcpy(&v, p, 8);
  return v;
}

inline void DBwire_put64(unsigned char *p, uint64_t v) { std::memcpy(p, &v, 8); }
