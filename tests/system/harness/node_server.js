// A roaming service on the library ws. Takes a command per line and tells, a line each, what
// happens and when a command is done. The lines are JSON, the payloads in them base64.
"use strict";

const readline = require("readline");
const { WebSocketServer } = require("ws");

let server = null;
let connection = null;

function tell(event) {
  process.stdout.write(JSON.stringify(event) + "\n");
}

function serve(socket, request) {
  connection = socket;
  tell({ event: "open", path: request.url, headers: request.headers,
    subprotocol: socket.protocol });
  socket.on("message", (data, is_binary) =>
    tell({ event: "message", payload: data.toString("base64"), is_text: !is_binary }));
  // Told as the close that follows.
  socket.on("error", () => {});
  socket.on("close", (code) => tell({ event: "close", code }));
}

const commands = {
  start({ port }, done) {
    server = new WebSocketServer({ host: "127.0.0.1", port, perMessageDeflate: false,
      handleProtocols: (offered) => offered.has("websock-roaming") && "websock-roaming" });
    server.on("connection", serve);
    server.on("listening", () => done({ port: server.address().port }));
  },
  stop(_, done) {
    for (const client of server.clients)
      client.close(1001);
    server.close(() => done());
  },
  send({ payload, is_text, is_final }, done) {
    connection.send(Buffer.from(payload, "base64"), { binary: !is_text, fin: is_final },
      () => done());
  },
  ping(_, done) {
    connection.once("pong", () => done());
    connection.ping();
  },
  close({ code, reason }, done) {
    connection.close(code, reason);
    done();
  },
  reset(_, done) {
    connection._socket.resetAndDestroy();
    done();
  },
};

const lines = readline.createInterface({ input: process.stdin });
lines.on("line", (line) => {
  const { command, ...more } = JSON.parse(line);
  commands[command](more, (result) => tell({ event: "done", ...result }));
});
lines.on("close", () => process.exit(0));
