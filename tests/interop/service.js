// A support service of another make: gRPC by grpc-js, forms by busboy. It knows the contract and nothing of our code.
//
//     node service.js NOTIFICATION_PROTO FOLDER
//
// Prints a JSON object per line. The first one has its addresses: {"event": "listening", "grpc", "css"}. Then what
// devices do: hello, answer, upload, report, end. Uploads become files in FOLDER. A line {"id", "text"} on standard
// input is delivered to the device that connected last.
'use strict';

const crypto = require('crypto');
const fs = require('fs');
const http = require('http');
const path = require('path');
const readline = require('readline');
const busboy = require('busboy');
const grpc = require('@grpc/grpc-js');
const protoLoader = require('@grpc/proto-loader');

const [proto, folder] = process.argv.slice(2);
const contract = grpc.loadPackageDefinition(protoLoader.loadSync(proto, {keepCase: true})).tarvo.support.v1;

let stream = null;

function tell(event, details) {
  process.stdout.write(JSON.stringify({event, ...details}) + '\n');
}

function open(call) {
  stream = call;
  call.on('data', (message) => {
    if (message.hello) {
      call.sendMetadata(new grpc.Metadata());
      tell('hello', message.hello);
    }
    if (message.answer) tell('answer', message.answer);
  });
  call.on('end', () => {
    tell('end', {});
    call.end();
  });
  call.on('error', () => tell('end', {}));
}

function answer(response, status, body) {
  response.writeHead(status, {'Content-Type': 'application/json'});
  response.end(JSON.stringify(body));
}

function takeUpload(request, response) {
  const upload = {token: request.headers['auth-token'], fields: {}, size: 0};
  const hash = crypto.createHash('sha256');
  let stored = Promise.resolve();
  const form = busboy({headers: request.headers});
  form.on('field', (name, value) => { upload.fields[name] = value; });
  form.on('file', (name, content, information) => {
    upload.part = name;
    upload.filename = information.filename;
    const file = fs.createWriteStream(path.join(folder, `${upload.token}.dat`));
    content.on('data', (piece) => {
      hash.update(piece);
      upload.size += piece.length;
    });
    stored = new Promise((done) => { file.on('finish', done); });
    content.pipe(file);
  });
  form.on('close', () => stored.then(() => {
    tell('upload', {...upload, sha256: hash.digest('hex')});
    answer(response, 200, {success: true});
  }));
  request.pipe(form);
}

function takeReport(request, response) {
  let body = '';
  request.on('data', (piece) => { body += piece; });
  request.on('end', () => {
    tell('report', {token: request.headers['auth-token'], type: request.headers['content-type'], body: JSON.parse(body)});
    answer(response, 200, {success: true});
  });
}

const css = http.createServer((request, response) => {
  if (request.method === 'POST' && request.url === '/orvane/ps_files') return takeUpload(request, response);
  if (request.method === 'POST' && request.url === '/orvane/ps_results') return takeReport(request, response);
  return answer(response, 404, {success: false, error: 'there is nothing here'});
});

const server = new grpc.Server();
server.addService(contract.NotificationService.service, {Open: open});
server.bindAsync('127.0.0.1:0', grpc.ServerCredentials.createInsecure(), (error, port) => {
  if (error) throw error;
  css.listen(0, '127.0.0.1', () => tell('listening', {
    grpc: `http://127.0.0.1:${port}`, css: `http://127.0.0.1:${css.address().port}`}));
});

readline.createInterface({input: process.stdin}).on('line', (line) => {
  const {id, text} = JSON.parse(line);
  stream.write({delivery: {ticket_id: id, ticket_json: text}});
}).on('close', () => process.exit(0));
