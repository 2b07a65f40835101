#include "agent/otlp_reply.h"

#include <protozero/pbf_reader.hpp>

#include <algorithm>

#include "agent/otlp_fields.h"

namespace tidegate::agent {
namespace {

using protozero::pbf_reader;
using protozero::pbf_wire_type;

// Fields that are there under a number that is meant here, but with another type, are skipped as
// unknown ones are.
bool IsText(const pbf_reader& reader, otlp::FieldNumber number) {
  return reader.tag() == number && reader.wire_type() == pbf_wire_type::length_delimited;
}

void ReadPartialSuccess(pbf_reader reader, OtlpReply* reply) {
  while (reader.next()) {
    if (reader.tag() == otlp::partial_success::kRejectedPoints &&
        reader.wire_type() == pbf_wire_type::varint) {
      reply->rejected = static_cast<uint64_t>(std::max<int64_t>(reader.get_int64(), 0));
    } else if (IsText(reader, otlp::partial_success::kMessage)) {
      reply->message = reader.get_string();
    } else {
      reader.skip();
    }
  }
}

pbf_reader ReaderOf(std::string_view body) { return pbf_reader(body.data(), body.size()); }

}  // namespace

OtlpReply ReadOtlpSuccess(std::string_view body) {
  OtlpReply reply;
  try {
    for (pbf_reader reader = ReaderOf(body); reader.next();) {
      if (IsText(reader, otlp::response::kPartialSuccess)) {
        ReadPartialSuccess(reader.get_message(), &reply);
      } else {
        reader.skip();
      }
    }
  } catch (const protozero::exception&) {
    return {};
  }
  return reply;
}

std::string ReadOtlpError(std::string_view body) {
  std::string message;
  try {
    for (pbf_reader reader = ReaderOf(body); reader.next();) {
      if (IsText(reader, otlp::status::kMessage)) {
        message = reader.get_string();
      } else {
        reader.skip();
      }
    }
  } catch (const protozero::exception&) {
    return {};
  }
  return message;
}

}  // namespace tidegate::agent
