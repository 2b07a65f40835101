#pragma once

#include <cstddef>
#include <string>

#include "agent/packet_reader.h"

// Points for people and scripts: one line per series record, or per ten that are one timer, made of
// what the packet says and nothing else, so that equal packets give equal lines. Numbers read back
// as the same double, and are written alike in every locale. Safe from any number of threads.
//
// After the tags of a record stand account and project of the packet's header, if they are not
// empty, and then `extra`, unless that is null.

namespace tidegate::agent {

// Appends a line such as
//   1700000000 t1 gauge svc.lat{dc=b,host=a} 1.5
//   1700000000 t1 delta_counter svc.req{} counter=3 rate=0.1 delta=3
// with timestamp, tenant, type, name, tags as sent, and the value or the fields. A string that is
// empty, or holds anything but plain printable ASCII, stands in double quotes with C escapes.
// REQUIRES: `block` is one of the packet's blocks, and `record` one of the block's series.
void AppendText(const Packet& packet, const Block& block, const Series& record, const Tag* extra,
                std::string* out);

// How many of the blocks from `first` on are the ten gauges of one timer: 10, or 0. They follow
// each other, with one record each of the same tags and timestamp, and their names end in ".min",
// ".max",
// ".avg", ".sum", ".counter", ".pct50", ".pct90", ".pct95", ".pct99" and ".pct999", in this order.
size_t TimerBlocks(const Packet& packet, size_t first);

// Appends those ten as one line such as
//   1700000000 t1 timer svc.lat{dc=b,host=a} min=1 max=3 avg=2 sum=4 counter=2 pct50=3 ...
// REQUIRES: TimerBlocks(packet, first) is 10.
void AppendTimerText(const Packet& packet, size_t first, const Tag* extra, std::string* out);

// Appends a point as one line of JSON:
//   {"timestamp":1700000000,"tenant":"t1","type":"gauge","name":"svc.lat",
//    "tags":{"dc":"b","host":"a"},"value":1.5}
// with "fields", an object, instead of "value" in a block with fields. NaN and the infinities are
// the strings "nan", "inf" and "-inf"; bytes that are not UTF-8 become U+FFFD. A key that was sent
// twice comes twice. REQUIRES as for AppendText.
void AppendJson(const Packet& packet, const Block& block, const Series& record, const Tag* extra,
                std::string* out);

}  // namespace tidegate::agent
