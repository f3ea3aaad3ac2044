#ifndef PUSHCHAT_MQTTMESAAGEPROTOCOL_H
#define PUSHCHAT_MQTTMESAAGEPROTOCOL_H

// The command grammar of the push channel and the topic parser/builder.
//
// Every topic carries a command: a family prefix ("m/i/", "s/g/c/", ...),
// a JID and one or two sub-command letters. The grammar is ten constant
// tables of ProtocolHead rows linked into a tree. MqttMesaageProtocol parses
// a topic into a command chain (heap copies of the rows that matched, top
// level first) and builds outgoing topics from the same rows.
//
// Threads: the tables are read-only and may be read from any thread. A
// MqttMesaageProtocol object belongs to one thread at a time. Compiled
// patterns are cached per thread, so parsing needs no lock.
//
// Text: topics and JIDs are byte strings. The parser keeps their bytes as
// they are, so a UTF-8 JID in a topic comes out as the same UTF-8 bytes.

#include "groupsubcmd.h"

#include <QString>

#include <cstdarg>
#include <list>
#include <string>

/// One grammar row, and also one node of a parsed command chain.
struct ProtocolHead {
    /// Command code; in a table's row 0, the number of real rows.
    int code;
    /// Name of the command, used in diagnostics.
    const char *name;
    /// Top table: pattern matched from the topic's first character.
    /// Sub-tables: the letter(s) that select the row. Row 0: "xx".
    const char *pattern;
    /// Nodes a complete chain has from this row on (0: no requirement).
    int levels;
    /// Sub-table resolving capture group k + 2 of `pattern` (null: none).
    const ProtocolHead *subHeads[5];
    /// Next (deeper) node of a chain; null in every table row.
    ProtocolHead *next;
};

/// Command codes. Codes are unique only within one table: the same number
/// stands for different commands at different depths of a chain.
enum ProtocolCode : int {
    // protocolHeadALL
    Protocol_MAX = 13,
    MESSAGE = 1,
    MESSAGE_INFO = 2,
    SYSTEM = 3,
    GroupCMD = 4,
    GroupINFO = 5,
    ConferenceCMD = 6,
    ConferenceINFO = 7,
    FriendCMD = 8,
    FriendInfo = 9,
    RemoteDesktopCMD = 10,
    RemoteDesktopINFO = 11,
    HistoryCMD = 12,
    HistoryINFO = 13,
    // groupCMDProtocolHead: its rows are the GroupSubCmd values
    GroupSub_MAX = 11,
    // groupInfoProtocolHead
    SubInfo_MAX = 2,
    SubInfo_CMD_RESPONSE = 20,
    SubInfo_NORMAL = 21,
    // messageSubHead
    MESSAGE_SUB_MAX = 4,
    MESSAGE_NORMAL = 22,
    MESSAGE_PRESENCE = 23,
    MESSAGE_MODYFY_STATUS = 24,
    MESSAGE_MODYFY_CLIENT_STATUS = 25,
    // friendSubCmdProtocolHead
    FriendSub_MAX = 4,
    FriendSub_Add = 26,
    FriendSub_Del = 27,
    FriendSub_List = 28,
    FriendSub_SetPro = 29,
    // friendSubInfoProtocolHead
    FriendSubInfo_MAX = 3,
    FriendSubInfo_Accept = 30,
    FriendSubInfo_Del = 31,
    FriendSubInfo_List = 32,
    // remoteDesktopSubCmdProtocolHead
    RemoteDesktopSub_MAX = 2,
    RemoteDesktopSub_ReqCtl = 33,
    RemoteDesktopSub_ReqBeCtl = 34,
    // remoteDesktopSubInfoProtocolHead
    RemoteDesktopSubInfo_MAX = 2,
    RemoteDesktopSubInfo_ReqCtl = 35,
    RemoteDesktopSubInfo_ReqBeCtl = 36,
    // HistorySubCmdProtocolHead
    HistorySub_MAX = 3,
    HistorySub_List = 37,
    HistorySub_Converstaion = 38,
    HistorySub_Converstaion_Detail = 39,
    // HistorySubInfoHead
    HistorySubInfo_MAX = 3,
    HistorySubInfo_List = 40,
    HistorySubInfo_Converstaion = 41,
    HistorySubInfo_Converstaion_Detail = 42
};

// The grammar tables; each is referred to by the address of its row 0.
extern const ProtocolHead protocolHeadALL[14];
extern const ProtocolHead messageSubHead[5];
extern const ProtocolHead groupCMDProtocolHead[12];
extern const ProtocolHead groupInfoProtocolHead[3];
extern const ProtocolHead friendSubCmdProtocolHead[5];
extern const ProtocolHead friendSubInfoProtocolHead[4];
extern const ProtocolHead remoteDesktopSubCmdProtocolHead[3];
extern const ProtocolHead remoteDesktopSubInfoProtocolHead[3];
extern const ProtocolHead HistorySubCmdProtocolHead[4];
extern const ProtocolHead HistorySubInfoHead[4];

/// One topic with its parsed command chain, JID and validity.
///
/// The object itself is the chain's head node; it owns the nodes after it.
/// Not copyable. Pointer parameters are `const` where the text is only read,
/// so callers holding `char*` and string literals alike can pass it.
class MqttMesaageProtocol : public ProtocolHead {
public:
    /// JID picked out of the topic (the last capture group holding "@").
    std::string jid;
    /// Text of the topic last parsed; the outgoing topic of a message.
    std::string topic;
    /// Whether the last fromTopic matched and gave a complete chain.
    bool valid;

    explicit MqttMesaageProtocol(const char *topic = nullptr);
    ~MqttMesaageProtocol();
    MqttMesaageProtocol(const MqttMesaageProtocol &) = delete;
    MqttMesaageProtocol &operator=(const MqttMesaageProtocol &) = delete;

    // --- parsing -------------------------------------------------------
    /// Parses `topic` into this object; returns `valid`.
    bool fromTopic(const char *topic);
    /// Matches `text` against rows first..last of `table`, building the
    /// chain in `*out`. True when `*out` then holds a node of non-zero code.
    bool parseTopic(
        const ProtocolHead *table, const char *text, ProtocolHead **out, unsigned int first, unsigned int last);
    /// Frees `node` and every node after it; nothing for null.
    static void deleteProtocol(ProtocolHead *node);

    /// Whether the chain is a prefix of the `count` codes that follow
    /// (passed as int). At most 5 codes; a larger count is refused (false).
    bool mactchSysProtocol(unsigned int count, ...);
    bool vmactchSysProtocol(unsigned int count, va_list codes);
    /// The same with the codes in an array; what the variadic forms use.
    bool matchCodes(const int *codes, unsigned int count) const;

    /// Shape tests of a plain message topic (m/JID/...).
    static bool parseMesageTopic(const char *topic);
    static bool parseSystemTopic(const char *topic);

    // --- chain measures ------------------------------------------------
    /// Length of the whole parsed chain (0 before any successful parse).
    unsigned int subCount() const;
    /// Nodes from `node` to the end of its chain; 0 for null.
    static unsigned int subHeadCount(const ProtocolHead *node);
    /// Whether every node from `node` on that sets `levels` has exactly
    /// that many nodes from itself to the end.
    static bool validePickVlaues(const ProtocolHead *node);
    /// Names of the nodes from `node` on, each followed by "/".
    static std::string getCmdDesc(const ProtocolHead *node);
    std::string getCmdDescribe() const;

    // --- building ------------------------------------------------------
    /// Builds the topic of a command addressed to `jid`: the family code,
    /// then one sub-command code per level (`count` codes in all, as int),
    /// and parses it back. True when the result is a complete chain.
    bool fromSysProtocol(const char *jid, unsigned int count, ...);
    bool vfromSysProtocol(const char *jid, unsigned int count, va_list codes);
    /// Builds and parses "m/" + jid + "/" + tail (tail may be null).
    bool fromMessageProtocol(const char *jid, const char *tail);

    /// The eleven topics a user subscribes to, in a fixed order.
    static std::list<std::string> getRecieveTopic(std::string jid);
    /// "m/i/" + jid + "/": prefix of the message topics of a user or room.
    static std::string getSendToTopic(std::string jid);
    static std::string getDeviceTopic(QString jid);
    static std::string getSyncMessageTopic(QString jid);
    static std::string getFreshGroupTopic(QString jid);

private:
    void resetHead();
};

#endif // PUSHCHAT_MQTTMESAAGEPROTOCOL_H
