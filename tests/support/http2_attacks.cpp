#include "http2_attacks.h"

#include <zlib.h>

#include <stdexcept>
#include <utility>

#include "http2_frames.h"

namespace hostile {
namespace {

using Frames = std::function<std::string(std::uint64_t)>;

constexpr std::size_t kBatch = 64UL * 1024;  // of small frames, for one round
constexpr std::size_t kFrame = 16384;
constexpr std::uint32_t kMaxStream = 0x7fffffff;
constexpr char kGoodTicket[] = R"({"token": "t", "apps": ["a"]})";

/// `text` as often as fills a batch.
std::string Batch(const std::string& text) { return Repeat(text, kBatch / text.size() + 1); }

/// `once`, then `repeated` for ever, in batches.
Frames Endless(const std::string& once, const std::string& repeated) {
  return [once, batch = Batch(repeated)](std::uint64_t round) { return round == 0 ? once + batch : batch; };
}

/// `once`, then nothing.
Frames Once(const std::string& once) {
  return [once](std::uint64_t round) { return round == 0 ? once : std::string(); };
}

std::string Setting(int name, std::uint64_t value) {
  return BigEndian(static_cast<unsigned>(name), 2) + BigEndian(value, 4);
}

/// Opens a block of header lines that never ends.
std::string OpenBlock(const std::string& lines) { return Frame(kHeaders, kNoFlags, kTheStream, lines); }
std::string GoOn(const std::string& lines) { return Frame(kContinuation, kNoFlags, kTheStream, lines); }

/// A string of 256 MiB that begins and never ends. Huffman's code for 'a' is 00011, so eight make five bytes.
Frames UnfinishedString(bool huffman) {
  const std::string begin =
      std::string(1, '\0') + HpackNumber(0, 7, 1) + "n" + HpackNumber(huffman ? 0x80 : 0, 7, 256UL << 20);
  const std::string eight_letters = huffman ? "\x18\xc6\x31\x8c\x63" : "aaaaa";
  return Endless(OpenBlock(begin), GoOn(Repeat(eight_letters, kFrame / 5)));
}

/// Makes the client remember a line of nearly 4 KiB, then names it again and again, by one byte each time.
std::string TableBomb() {
  const std::string remembered =
      std::string(1, '\x40') + HpackNumber(0, 7, 1) + "n" + HpackNumber(0, 7, 3900) + std::string(3900, 'v');
  return remembered + std::string(kFrame - remembered.size(), '\xbe');
}

std::string TableUpdates() { return HpackNumber(0x20, 5, 0) + HpackNumber(0x20, 5, 4096) + '\x88'; }

/// Distinct lines, so that each costs an entry.
std::string ManyLines(std::uint64_t round, std::size_t bytes) {
  std::string lines;
  while (lines.size() + 64 < bytes) {
    lines +=
        HeaderLine("n" + std::to_string(round) + "-" + std::to_string(lines.size()), std::string(20, 'v'));
  }
  return lines;
}

std::string Gzip(const std::string& text) {
  z_stream stream{};
  constexpr int kGzip = 15 + 16;
  if (deflateInit2(&stream, Z_BEST_COMPRESSION, Z_DEFLATED, kGzip, 9, Z_DEFAULT_STRATEGY) != Z_OK) {
    throw std::runtime_error("zlib fails");
  }
  std::string packed(deflateBound(&stream, text.size()), '\0');
  std::string input = text;
  stream.next_in = reinterpret_cast<Bytef*>(input.data());
  stream.avail_in = static_cast<uInt>(input.size());
  stream.next_out = reinterpret_cast<Bytef*>(packed.data());
  stream.avail_out = static_cast<uInt>(packed.size());
  const int status = deflate(&stream, Z_FINISH);
  packed.resize(stream.total_out);
  deflateEnd(&stream);
  if (status != Z_STREAM_END) throw std::runtime_error("zlib fails");
  return packed;
}

/// 60 MiB of zeros in less than 64 KiB.
const std::string& Bomb() {
  static const std::string bomb = Gzip(std::string(60UL << 20, '\0'));
  return bomb;
}

std::string GzipBomb() {
  return Frame(kHeaders, kEndHeaders, kTheStream,
               ResponseHeaderLines() + HeaderLine("grpc-encoding", "gzip")) +
         Message(Bomb(), true);
}

/// Tickets with ids of their own, a batch of them in each round.
Frames Tickets(const std::string& id_prefix, const std::string& json) {
  return [=](std::uint64_t round) {
    std::string frames = round == 0 ? ResponseHeaders() : "";
    for (int i = 0; frames.size() < kBatch; ++i) {
      frames += Message(Delivery(id_prefix + std::to_string(round) + "-" + std::to_string(i), json));
    }
    return frames;
  };
}

/// Each of `count` bytes of a message in a frame of its own.
std::string InSmallFrames(const std::string& text) {
  const std::string all = std::string(1, '\0') + BigEndian(text.size(), 4) + text;
  std::string frames;
  for (const char byte : all) frames += Frame(kData, kNoFlags, kTheStream, std::string(1, byte));
  return frames;
}

/// One frame for each of the streams that the client never opened.
Frames OnOtherStreams(std::uint8_t type, std::uint8_t flags, const std::string& payload) {
  return [=](std::uint64_t round) {
    std::string frames;
    for (std::uint32_t i = 0; frames.size() < kBatch; ++i) {
      frames +=
          Frame(type, flags, (3 + 2 * (static_cast<std::uint32_t>(round) * 8192 + i)) & kMaxStream, payload);
    }
    return frames;
  };
}

std::string GoAway(const std::string& text) {
  return Frame(kGoAway, kNoFlags, kConnection, BigEndian(kMaxStream, 4) + BigEndian(0, 4) + text);
}

std::vector<Http2Attack> MakeAttacks() {
  const std::string eight_bytes(8, 'p');
  const std::string long_id(60UL * 1024, 'i');
  const std::string headers = ResponseHeaders();
  std::vector<Http2Attack> attacks = {
      // Frames that cost the sender next to nothing.
      {"EmptyContinuations", Endless(OpenBlock(""), GoOn(""))},
      {"EmptySettings", Endless("", Frame(kSettings, kNoFlags, kConnection, ""))},
      {"SettingsFromTheStart", Endless("", Frame(kSettings, kNoFlags, kConnection, Setting(4, 65535))), Windows::kAreObeyed, From::kTheStart},
      {"SettingsUnread", Endless("", Frame(kSettings, kNoFlags, kConnection, "")), Windows::kAreObeyed, From::kTheRequest, Answers::kAreNotRead},
      {"FullSettings", Endless("", Frame(kSettings, kNoFlags, kConnection, Repeat(Setting(0x77, 1), 2700)))},
      {"ChangingWindowSettings", Endless("", Frame(kSettings, kNoFlags, kConnection, Setting(4, 0)) +
                       Frame(kSettings, kNoFlags, kConnection, Setting(4, 65535)))},
      {"SettingsAcknowledged", Endless("", Frame(kSettings, kAck, kConnection, ""))},
      {"WindowUpdatesOfTheConnection", Endless("", Frame(kWindowUpdate, kNoFlags, kConnection, BigEndian(1, 4)))},
      {"WindowUpdatesOfTheStream", Endless("", Frame(kWindowUpdate, kNoFlags, kTheStream, BigEndian(1, 4)))},
      {"WindowUpdatesOfNoStream", OnOtherStreams(kWindowUpdate, kNoFlags, BigEndian(1, 4))},
      {"Pings", Endless("", Frame(kPing, kNoFlags, kConnection, eight_bytes))},
      {"PingsUnread", Endless("", Frame(kPing, kNoFlags, kConnection, eight_bytes)), Windows::kAreObeyed, From::kTheRequest, Answers::kAreNotRead},
      {"PingAnswers", Endless("", Frame(kPing, kAck, kConnection, eight_bytes))},
      {"Resets", Endless(headers, Frame(kRstStream, kNoFlags, kTheStream, BigEndian(8, 4)))},
      {"ResetsOfOtherStreams", OnOtherStreams(kRstStream, kNoFlags, BigEndian(8, 4))},
      {"Priorities", Endless(headers, Frame(kPriority, kNoFlags, kTheStream, BigEndian(0, 5)))},
      {"PrioritiesOfOtherStreams", OnOtherStreams(kPriority, kNoFlags, BigEndian(0, 5))},
      {"UnknownFrames", Endless("", Frame(0xbb, 0xff, kTheStream, ""))},
      {"LargeUnknownFrames", Endless("", Frame(0xbb, 0xff, kConnection, std::string(kFrame, 'u')))},
      {"EmptyData", Endless(headers, Frame(kData, kNoFlags, kTheStream, "")), Windows::kAreIgnored},
      {"PaddedData", Endless(headers, Frame(kData, kPadded, kTheStream, '\xff' + std::string(255, '\0'))), Windows::kAreIgnored},
      {"DataOfOtherStreams", OnOtherStreams(kData, kNoFlags, eight_bytes), Windows::kAreIgnored},
      {"GoAways", Endless(headers, GoAway(""))},
      {"GoAwaysWithLongTexts", Endless(headers, GoAway(std::string(16000, '\x01')))},
      {"Promises", Endless(headers, Frame(kPushPromise, kEndHeaders, kTheStream, BigEndian(2, 4) + ResponseHeaderLines()))},
      // Frames that never end.
      {"HugeFrame", Endless(headers + FrameHead((1U << 24) - 1, kData, kNoFlags, kTheStream), std::string(kFrame, '\0')), Windows::kAreIgnored},
      {"FrameThatNeverComes", Once(headers + FrameHead(kFrame, kContinuation, kNoFlags, kTheStream))},
      {"FrameHeadCut", Once(FrameHead(kFrame, kHeaders, kNoFlags, kTheStream).substr(0, 4))},
      // Header lines.
      {"UnfinishedString", UnfinishedString(false)},
      {"UnfinishedHuffmanString", UnfinishedString(true)},
      {"EndlessNumber", Endless(OpenBlock(std::string(1, '\0') + "\x7f" + std::string(1000, '\x80')),
               GoOn(std::string(1000, '\x80')))},
      {"EndlessLines", [](std::uint64_t round) {
         return round == 0 ? OpenBlock(ResponseHeaderLines()) : GoOn(ManyLines(round, kFrame));
       }},
      {"LinesBeyondTheLimit", [](std::uint64_t round) {
         return OpenBlock(ResponseHeaderLines()) + GoOn(ManyLines(round, kFrame)) + GoOn(ManyLines(round, kFrame)) +
                Frame(kContinuation, kEndHeaders, kTheStream, "");
       }},
      {"TableBomb", Endless(OpenBlock(""), GoOn(TableBomb()))},
      {"TableUpdates", Endless(OpenBlock(ResponseHeaderLines()), GoOn(Repeat(TableUpdates(), 1000)))},
      {"HugeTableUpdate", Endless("", Frame(kHeaders, kEndHeaders, kTheStream, HpackNumber(0x20, 5, 0xffffffffU)))},
      {"Informations", Endless("", Frame(kHeaders, kEndHeaders, kTheStream, HeaderLine(":status", "103") + HeaderLine("n", "v")))},
      {"InitialMetadataAgain", Endless(headers, headers)},
      {"Trailers", Endless(headers, Frame(kHeaders, kEndHeaders | kEndStream, kTheStream,
                              HeaderLine("grpc-status", "14") + HeaderLine("grpc-message", std::string(4000, 'm'))))},
      {"TrailersOfOtherStreams", OnOtherStreams(kHeaders, kEndHeaders | kEndStream, HeaderLine("grpc-status", "14"))},
      // Messages.
      {"MessageThatNeverComes", Once(headers + Frame(kData, kNoFlags, kTheStream, std::string(1, '\0') + BigEndian(65536, 4)))},
      {"MessageOfFourGibibytes", Once(headers + Frame(kData, kNoFlags, kTheStream, std::string(1, '\0') + BigEndian(0xffffffffU, 4)))},
      {"GzipBomb", [](std::uint64_t round) { return round == 0 ? GzipBomb() : std::string(); }},
      {"GzipBombWithoutAName",
       [](std::uint64_t round) { return round == 0 ? ResponseHeaders() + Message(Bomb(), true) : std::string(); }},
      {"EmptyMessages", Endless(headers, Message(""))},
      {"MessagesInSmallFrames", Endless(headers, InSmallFrames(Delivery("", std::string(60000, 'x'))))},
      {"UndecodableMessages", Endless(headers, Message("\xff\xff\xff"))},
      {"MalformedTickets", Tickets("m", "no json")},
      {"MalformedTicketsUnread", Tickets("m", "no json"), Windows::kAreIgnored, From::kTheRequest, Answers::kAreNotRead},
      {"DeepTickets", Tickets("d", std::string(60000, '['))},
      {"TicketsOfManyValues", Tickets("v", R"({"token": 1, "apps": [)" + Repeat("{},", 20000) + "0]}")},
      {"TicketsOfComments", Tickets("c", Repeat("/**/", 15000))},
      {"TicketsOfEscapes", Tickets("e", R"({"token": ")" + Repeat("\\u00e9", 10000) + "\"}")},
      {"RepeatedTicket", Endless(headers, Message(Delivery("the same", kGoodTicket)))},
      {"GoodTickets", Tickets("g", kGoodTicket)},
      {"GoodTicketsUnread", Tickets("g", kGoodTicket), Windows::kAreIgnored, From::kTheRequest, Answers::kAreNotRead},
      {"GoodTicketsWithLongIds", Tickets(long_id, kGoodTicket)},
      {"GoodTicketsWhoseAnswersGetNoWindow",
       [tickets = Tickets("w", kGoodTicket)](std::uint64_t round) {
         return (round == 0 ? Frame(kSettings, kNoFlags, kConnection, Setting(4, 0)) : "") + tickets(round);
       }},
      {"TicketsTooLargeForTheDaemon", Tickets("l", R"({"token": "t", "apps": [")" + std::string(3000, 'a') + "\"]}")},
      {"MessagesBeyondTheWindow", Tickets("b", "no json"), Windows::kAreIgnored},
  };
  for (Http2Attack& attack : attacks) {
    for (const char* name : {"EmptyContinuations", "Pings", "UnfinishedString", "MalformedTickets"}) {
      attack.also_over_tls = attack.also_over_tls || attack.name == name;
    }
  }
  for (const auto& [name, flood] : {std::pair("TlsKeyUpdates", TlsFlood::kKeyUpdates),
                                    std::pair("TlsSessionTickets", TlsFlood::kSessionTickets)}) {
    attacks.push_back({name, Once("")});
    attacks.back().tls_flood = flood;
  }
  return attacks;
}

}  // namespace

const std::vector<Http2Attack>& Http2Attacks() {
  static const std::vector<Http2Attack> attacks = MakeAttacks();
  return attacks;
}

const Http2Attack& Http2AttackNamed(const std::string& name) {
  for (const Http2Attack& attack : Http2Attacks()) {
    if (attack.name == name) return attack;
  }
  throw std::out_of_range(name);
}

}  // namespace hostile
