// A device of another make, over mutual TLS: gRPC by grpc-js, uploads by Node's own https and a form written by hand. It
// knows the contract and nothing of our code.
//
//     node device.js NOTIFICATION_PROTO BUNDLE SERIAL_NUMBER ARCHIVE
//
// BUNDLE is the folder that the enrolment of a device makes. Accepts the first ticket, uploads the archive for it, reports
// success, and ends once the service has taken both. Prints a JSON object per line: ticket, uploaded, reported.
'use strict';

const fs = require('fs');
const https = require('https');
const path = require('path');
const grpc = require('@grpc/grpc-js');
const protoLoader = require('@grpc/proto-loader');

const [proto, bundle, serialNumber, archive] = process.argv.slice(2);
const contract = grpc.loadPackageDefinition(
  protoLoader.loadSync(proto, {keepCase: true, enums: String})).tarvo.support.v1;
const tls = {
  ca: fs.readFileSync(path.join(bundle, 'ca.pem')),
  cert: fs.readFileSync(path.join(bundle, 'client.pem')),
  key: fs.readFileSync(path.join(bundle, 'client.key')),
};
const configuration = JSON.parse(fs.readFileSync(path.join(bundle, 'tarvomibserver.conf'), 'utf8'))
  .debug_dat_file_transmitter;

function tell(event, details) {
  process.stdout.write(JSON.stringify({event, ...details}) + '\n');
}

function post(place, headers, body) {
  return new Promise((done, failed) => {
    const request = https.request(new URL(place, configuration.css_server.url),
      {method: 'POST', headers: {...headers, 'Content-Length': body.length}, ...tls}, (response) => {
        let text = '';
        response.on('data', (piece) => { text += piece; });
        response.on('end', () => done({status: response.statusCode, body: JSON.parse(text)}));
      });
    request.on('error', failed);
    request.end(body);
  });
}

function form(boundary, apps) {
  const part = (disposition, content) => Buffer.concat([
    Buffer.from(`--${boundary}\r\nContent-Disposition: form-data; ${disposition}\r\n\r\n`), content, Buffer.from('\r\n')]);
  return Buffer.concat([
    part('name="debug_file"; filename="debug.dat"', fs.readFileSync(archive)),
    part('name="serial_number"', Buffer.from(serialNumber)),
    ...apps.map((app, index) => part(`name="debug_data_apps[${index}]"`, Buffer.from(app))),
    Buffer.from(`--${boundary}--\r\n`)]);
}

async function serve(delivery) {
  const ticket = JSON.parse(delivery.ticket_json);
  tell('ticket', {id: delivery.ticket_id, apps: ticket.apps});
  stream.write({answer: {ticket_id: delivery.ticket_id, status: 'CLIENT_STATUS_ACCEPTED'}});
  const boundary = '------------------------interop';
  tell('uploaded', await post('/orvane/ps_files',
    {'AUTH-TOKEN': ticket.token, 'Content-Type': `multipart/form-data; boundary=${boundary}`}, form(boundary, ticket.apps)));
  tell('reported', await post('/orvane/ps_results', {'AUTH-TOKEN': ticket.token, 'Content-Type': 'application/json'},
    Buffer.from(JSON.stringify({status: 'Success', serial_number: serialNumber}))));
  stream.end();
}

const client = new contract.NotificationService(
  new URL(configuration.grpc_server.url).host, grpc.credentials.createSsl(tls.ca, tls.key, tls.cert));
const stream = client.Open();
stream.on('data', (message) => serve(message.delivery));
stream.on('error', (error) => {
  tell('error', {text: error.message});
  process.exit(1);
});
stream.on('end', () => process.exit(0));
stream.write({hello: {serial_number: serialNumber, protocol: 1}});
