// A bridge of npm's packages: ws, and zeromq over the messaging library's sockets.
// Usage: node_bridge.js PORT
'use strict';

const WebSocket = require('ws');
const zmq = require('zeromq');

const folder = process.env.MODULE_BUS_DIR;
const moduleId = 2;
const pieceBytes = 1024;
const headBytes = 21;
const pingMs = 30000;
const mostWaiting = 1024 * 1024;

const inbox = new zmq.Router();
const outlet = new zmq.XPublisher({ sendHighWaterMark: 200000, verbosity: 'allSubs' });
let number = 0n;

function frame(kind, size, offset, piece) {
  const bytes = Buffer.allocUnsafe(headBytes + piece.length);
  bytes.write(kind, 0);
  bytes.writeUInt32LE(process.pid, 1);
  bytes.writeBigUInt64LE(number, 5);
  bytes.writeUInt32LE(size, 13);
  bytes.writeUInt32LE(offset, 17);
  piece.copy(bytes, headBytes);
  return bytes;
}

function* frames(message) {
  for (let offset = 0; offset < message.length; offset += pieceBytes)
    yield frame('P', message.length, offset, message.subarray(offset, offset + pieceBytes));
  number += 1n;
}

// One send at a time is allowed, so what comes during one waits here.
let waiting = [];
let isSending = false;
async function publish(pieces) {
  for (const piece of pieces)
    waiting.push(piece);
  if (isSending)
    return;
  isSending = true;
  while (waiting.length > 0) {
    const batch = waiting;
    waiting = [];
    for (const piece of batch)
      await outlet.send(piece);
  }
  isSending = false;
}

async function greetListeners() {
  for await (const [subscription] of outlet) {
    if (subscription[0] === 1)
      publish([frame('H', 0, 0, Buffer.alloc(0))]);
  }
}

async function passUp(service) {
  for await (const [sender, message] of inbox) {
    await inbox.send([sender, 'A']);
    service.send(message.subarray(1), { binary: false });
    while (service.bufferedAmount > mostWaiting)
      await new Promise(setImmediate);
  }
}

async function main(port) {
  await inbox.bind(`ipc://${folder}/${moduleId}.in`);
  await outlet.bind(`ipc://${folder}/${moduleId}.out`);
  const service = new WebSocket(`ws://127.0.0.1:${port}/roam`, 'websock-roaming',
                                { perMessageDeflate: false, maxPayload: 0 });
  service.on('message', (message) => publish(frames(message)));
  service.on('close', () => process.exit(1));
  service.on('open', () => {
    setInterval(() => service.ping(), pingMs);
    greetListeners();
    passUp(service);
  });
}

main(Number(process.argv[2]));
