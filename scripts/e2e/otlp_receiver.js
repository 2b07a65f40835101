// otlp_receiver.js PORT FILE [METRIC]: takes metrics by OTLP/HTTP, decoded by OpenTelemetry's own
// code, and appends each data point to FILE as a line of JSON. Points of METRIC are rejected.
'use strict';
const fs = require('fs');
const http = require('http');
const zlib = require('zlib');
const proto = require('@opentelemetry/otlp-transformer/build/src/generated/root').opentelemetry.proto;

const { ExportMetricsServiceRequest, ExportMetricsServiceResponse } = proto.collector.metrics.v1;
const [port, file, rejected] = process.argv.slice(2);
const attributes = (list) => Object.fromEntries(list.map((a) => [a.key, a.value.stringValue]));

function* pointsOf(request) {
  for (const { resource, scopeMetrics } of request.resourceMetrics) {
    for (const { scope, metrics } of scopeMetrics) {
      for (const metric of metrics) {
        const { dataPoints, ...data } = metric[metric.data];
        for (const point of dataPoints) {
          yield { resource: attributes(resource.attributes), scope, name: metric.name,
            kind: metric.data, ...data, ...point, attributes: attributes(point.attributes) };
        }
      }
    }
  }
}

http.createServer((request, reply) => {
  const parts = [];
  request.on('data', (part) => parts.push(part)).on('end', () => {
    const body = zlib.gunzipSync(Buffer.concat(parts));
    const message = ExportMetricsServiceRequest.toObject(ExportMetricsServiceRequest.decode(body),
      { longs: String, arrays: true, oneofs: true });
    const points = [...pointsOf(message)];
    const kept = points.filter((point) => point.name !== rejected);
    fs.appendFileSync(file, kept.map((point) => JSON.stringify(point) + '\n').join(''));
    const answer = kept.length === points.length ? {} : { partialSuccess: {
      rejectedDataPoints: points.length - kept.length, errorMessage: `no room for ${rejected}` } };
    if (answer.partialSuccess) fs.appendFileSync(`${file}.rejected`, `${points.length - kept.length}\n`);
    if (request.url !== '/v1/metrics' || request.headers['content-type'] !== 'application/x-protobuf') {
      reply.statusCode = 400;
    }
    reply.setHeader('Content-Type', 'application/x-protobuf');
    reply.end(ExportMetricsServiceResponse.encode(answer).finish());
  });
}).listen(Number(port), '127.0.0.1');
