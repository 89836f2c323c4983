// Drives a shared desktop through "Velmora mcp" with the official client library, one tool after the other, and
// checks on the desktop itself that each of them did what it says. Ends with status 1 at the first that did not.
// The environment says where everything is: see AgentClientTest.cpp.

import assert from 'node:assert/strict';
import { spawn } from 'node:child_process';
import { existsSync, readFileSync } from 'node:fs';
import { createInterface } from 'node:readline';
import { Client } from '@modelcontextprotocol/sdk/client/index.js';
import { StdioClientTransport } from '@modelcontextprotocol/sdk/client/stdio.js';

const { VELMORA_PROGRAM: program, TASK_WINDOW: window, ADDRESS: address, HOST_ID: hostId, PASSWORD: password } = process.env;
const wrong = password === '123456' ? '654321' : '123456';
const slowness = Math.max(Number(process.env.VELMORA_TEST_SLOWNESS) || 1, 1);
const within = (seconds) => seconds * 1000 * slowness;
const width = 1280, height = 800;

/// The bridge as an agent has it. `environment` is its home: what is saved there is saved.
class Bridge {
  constructor(home) {
    this.transport = new StdioClientTransport({
      command: program,
      args: ['mcp', '--own-display'],
      env: { ...process.env, HOME: home, XDG_CONFIG_HOME: `${home}/config`, XDG_DATA_HOME: `${home}/data`,
             XDG_STATE_HOME: `${home}/state`, DISPLAY: '' },
      stderr: 'ignore',
    });
    this.client = new Client({ name: 'velmora-test', version: '1.0.0' });
  }
  start() {
    return this.client.connect(this.transport);
  }
  async call(name, args = {}, seconds = 60) {
    const answer = await this.client.callTool({ name, arguments: args }, undefined, { timeout: within(seconds) });
    const texts = answer.content.filter((block) => block.type === 'text').map((block) => block.text);
    const image = answer.content.find((block) => block.type === 'image');
    return { text: texts.join('\n'), image, isError: answer.isError === true };
  }
  /// A tool that has nothing but words to say, and these.
  async says(text, name, args, seconds) {
    const answer = await this.call(name, args, seconds);
    assert.equal(answer.text, text);
    assert.equal(answer.isError, false);
  }
  async fails(text, name, args, seconds) {
    const answer = await this.call(name, args, seconds);
    assert.match(answer.text, text);
    assert.equal(answer.isError, true);
  }
  async pictures(text, name, args, seconds) {
    const answer = await this.call(name, args, seconds);
    assert.equal(answer.text, text);
    assert.equal(answer.image?.mimeType, 'image/jpeg');
    return sizeOf(Buffer.from(answer.image.data, 'base64'));
  }
}

/// "WxH" of a JPEG, out of its frame header.
function sizeOf(jpeg) {
  for (let at = 2; at + 9 < jpeg.length && jpeg[at] === 0xff; at += 2 + jpeg.readUInt16BE(at + 2)) {
    if (jpeg[at + 1] >= 0xc0 && jpeg[at + 1] <= 0xc2) return `${jpeg.readUInt16BE(at + 7)}x${jpeg.readUInt16BE(at + 5)}`;
  }
  return 'no JPEG';
}

async function eventually(condition, what) {
  const end = Date.now() + within(20);
  while (!(await condition())) {
    assert.ok(Date.now() < end, `in vain: ${what}`);
    await new Promise((resolve) => setTimeout(resolve, 20)); // between two looks
  }
}

/// The window on the shared desktop that judges what is done in it.
class TaskWindow {
  constructor() {
    this.answers = [];
    this.child = spawn(window, { stdio: ['pipe', 'pipe', 'ignore'] });
    createInterface({ input: this.child.stdout }).on('line', (line) => this.answers.push(JSON.parse(line)));
  }
  async show(task) {
    this.answers = [];
    this.child.stdin.write(JSON.stringify({ show: task[0], ...task[1] }) + '\n');
    await eventually(() => this.answers.some((answer) => answer.shown === task[0]), `shown: ${task[0]}`);
  }
  async wasRight(what) {
    await eventually(() => this.answers.some((answer) => answer.right || answer.wrong), what);
    assert.deepEqual(this.answers.filter((answer) => answer.wrong), [], what);
  }
}

const home = process.env.AGENT_HOME;
const bridge = new Bridge(home);
const tasks = new TaskWindow();

/// Shows a task, does it with one tool, and has the window judge.
async function does(task, said, tool, args) {
  await tasks.show(task);
  await bridge.says(said, tool, args);
  await tasks.wasRight(`${tool} ${JSON.stringify(args)}`);
}

const steps = {
  async 'the handshake and the catalogue'() {
    await bridge.start();
    assert.equal(bridge.client.getServerVersion().name, 'velmora');
    const { tools } = await bridge.client.listTools();
    assert.equal(tools.length, 17);
    for (const tool of tools) assert.equal(tool.inputSchema.type, 'object', tool.name);
    await tasks.show(['place', { x: 0, y: 0, width, height }]);
  },
  async 'without a connection'() {
    await bridge.says("Wasn't connected", 'disconnect');
    assert.match((await bridge.call('status')).text, /^Not connected\. Call connect with one of: /);
    await bridge.fails(/^Pass device \(name or Host ID\) or host_id and password$/, 'connect');
    await bridge.fails(/^No device named “Atlantis”\. Known devices: .*Add it in Velmora first/, 'connect', { device: 'Atlantis' });
    await bridge.fails(/^The Host ID needs 9 digits and the password 6\.$/, 'connect', { host_id: '12', password: '3' });
  },
  async 'an address alone carries no password'() {
    await bridge.fails(/^Update Velmora\. .* run Velmora versions that don't work together\./, 'connect', { device: address });
  },
  async 'connected by address'() {
    await bridge.says(`Connected to ${address} via LAN, screen ${width}×${height}`, 'connect', { device: address, password });
    const status = (await bridge.call('status')).text;
    assert.ok(status.startsWith(`Connected to ${address} via LAN, screen ${width}×${height}`), status);
  },
  async pictures() {
    assert.equal(await bridge.pictures(`${width}×${height} px`, 'screenshot'), `${width}x${height}`);
    const region = { x: 100, y: 50, width: 320, height: 200 };
    assert.equal(await bridge.pictures('Close-up of 100,50 320×200; click with full-screenshot coordinates', 'screenshot', { region }), '320x200');
    await bridge.fails(/^region needs x, y, width and height$/, 'screenshot', { region: { x: 1 } });
    await bridge.fails(/^No picture yet \(or the region is off screen\); try again$/, 'screenshot', { region: { ...region, x: 5000 } });
  },
  async clicks() {
    const target = { x: 400, y: 300, size: 16 };
    await does(['target', target], 'Clicked at 400, 300', 'click', { x: 400, y: 300 });
    await does(['target', { ...target, count: 2 }], 'Clicked at 400, 300', 'click', { x: 400, y: 300, count: 2 });
    await does(['target', { ...target, button: 1 }], 'Clicked at 400, 300', 'click', { x: 400, y: 300, button: 'right' });
    await does(['target', { ...target, button: 2 }], 'Clicked at 400, 300', 'click', { x: 400, y: 300, button: 'middle' });
    await bridge.says('Moved to 10, 20', 'move', { x: 10.9, y: 20 });
    await bridge.fails(/^Missing x or y$/, 'click', { x: 1 });
  },
  async drags() {
    await does(['drag', { x: 200, y: 200, toX: 700, toY: 500, size: 24 }], 'Dragged to 700, 500', 'drag',
               { x: 200, y: 200, to_x: 700, to_y: 500 });
  },
  async scrolling() {
    const rows = 20; // the height of a line
    await tasks.show(['list', { line: 299 }]);
    await bridge.says('Scrolled', 'scroll', { x: 300, y: 400, direction: 'down', amount: 400 });
    await bridge.says(`Clicked at 300, ${height - rows / 2}`, 'click', { x: 300, y: height - rows / 2 });
    await tasks.wasRight('scrolled to the end');
    await tasks.show(['list', { line: 3 }]);
    await bridge.says('Scrolled', 'scroll', { x: 300, y: 400, direction: 'down', amount: 10 });
    await bridge.says('Scrolled', 'scroll', { x: 300, y: 400, direction: 'up', amount: 40 });
    await bridge.says(`Clicked at 300, ${3.5 * rows}`, 'click', { x: 300, y: 3.5 * rows });
    await tasks.wasRight('scrolled down and back');
    await bridge.fails(/^direction must be up, down, left or right$/, 'scroll', { x: 1, y: 1, direction: 'away' });
  },
  async typing() {
    const text = 'Größe: 12 €\n«你好» {x^2}';
    await does(['field', { text }], 'Typed 22 characters', 'type', { text });
  },
  async keys() {
    await tasks.show(['field', { text: 'new', start: 'old' }]);
    await bridge.says('Pressed cmd+a', 'key', { combo: 'cmd+a' });
    await bridge.says('Typed 3 characters', 'type', { text: 'new' });
    await tasks.wasRight('a text that is replaced');
    for (const [combo, keys] of [['cmd+shift+s', 'Ctrl+Shift+S'], ['f5', 'F5'], ['alt+left', 'Alt+Left'], ['escape', 'Esc']]) {
      await does(['shortcut', { keys }], `Pressed ${combo}`, 'key', { combo });
    }
    await bridge.fails(/^Unknown key\. Use names like return,/, 'key', { combo: 'cmd+é' });
  },
  async 'the clipboard, both ways'() {
    await bridge.says('Nothing copied on the remote Mac yet in this session. Select something there and press cmd+c first.', 'get_clipboard');
    await tasks.show(['field', { text: 'never', start: 'Größe, copied' }]);
    await bridge.says('Pressed cmd+a', 'key', { combo: 'cmd+a' });
    await bridge.says('Pressed cmd+c', 'key', { combo: 'cmd+c' });
    await eventually(async () => (await bridge.call('get_clipboard')).text === 'Größe, copied', 'what was copied');
    await tasks.show(['copy']);
    const isPicture = (image) => image?.mimeType === 'image/png' && Buffer.from(image.data, 'base64').subarray(1, 4).toString() === 'PNG';
    await eventually(async () => isPicture((await bridge.call('get_clipboard')).image), 'the picture that was copied');
    const text = '¡pasted!\n你好';
    await tasks.show(['field', { text }]);
    await bridge.says('The remote clipboard holds 11 characters; press cmd+v there to paste', 'set_clipboard', { text });
    await bridge.says('Pressed cmd+v', 'key', { combo: 'cmd+v' });
    await tasks.wasRight('a text that is pasted');
  },
  async opening() {
    await tasks.show(['target', { x: 5, y: 5, size: 8 }]);
    await bridge.pictures('Opened Page Writer through Spotlight', 'open', { target: 'Page Writer' });
    await bridge.says('Typed 7 characters', 'type', { text: 'written' });
    const written = () => existsSync(process.env.WRITTEN) && readFileSync(process.env.WRITTEN, 'utf8');
    await eventually(() => written() === 'written', 'what was typed into what was opened');
    await bridge.fails(/^Missing target$/, 'open', {});
  },
  async displays() {
    const { text } = await bridge.call('list_displays');
    const shown = text.match(/^(\d+): .* 1280×800 \(current\)$/m);
    assert.ok(shown, text);
    assert.equal(await bridge.pictures(`Showing display ${shown[1]}; coordinates now refer to it`, 'select_display', { id: shown[1] }), `${width}x${height}`);
    await bridge.fails(/^id must be a display id from list_displays or "virtual"$/, 'select_display', { id: 'left' });
  },
  async waiting() {
    await tasks.show(['motion', { seconds: 1 }]);
    await bridge.pictures('The screen changed', 'wait', { timeout: 20 });
  },
  async 'a minute without a change'() {
    await bridge.pictures('No change within 60 s', 'wait', { timeout: 60 }, 120); // the library's own limit is 60 s
  },
  async 'leaving and coming back'() {
    await bridge.says(`Disconnected from ${address}`, 'disconnect');
    await bridge.says("Wasn't connected", 'disconnect');
    await bridge.says(`Not connected to ${address} yet`, 'status');
    await bridge.pictures(`${width}×${height} px`, 'screenshot');
  },
  async 'a wrong password'() {
    await bridge.fails(/The password for 127\.0\.0\.1 didn't match\./, 'connect', { device: address, password: wrong });
    await bridge.says(`Connected to ${address} via LAN, screen ${width}×${height}`, 'connect', { device: address, password });
  },
  async 'found by its Host ID'() {
    // It may be found on this network first, and is then called by its name.
    await bridge.fails(/^Wrong password\. The password for .+ didn't match\./, 'connect', { host_id: hostId, password: wrong });
    await bridge.fails(/The password for 123 456 789 didn't match\./, 'connect', { host_id: '123 456 789', password });
    const { text } = await bridge.call('connect', { host_id: hostId, password });
    assert.match(text, new RegExp(`^Connected to .+ via (LAN|Direct), screen ${width}×${height}$`));
    await bridge.says('Typed 2 characters', 'type', { text: 'id' });
    assert.equal(await bridge.pictures(`${width}×${height} px`, 'screenshot'), `${width}x${height}`);
  },
  async 'the end of input'() {
    const pid = bridge.transport.pid;
    await bridge.client.close(); // ends the input, and would use force after two seconds
    assert.throws(() => process.kill(pid, 0));
  },
};

let done = 0;
for (const [name, step] of Object.entries(steps)) {
  const begun = Date.now();
  try {
    await step();
  } catch (error) {
    console.error(`FAILED: ${name}\n`, error, '\nThe window said', tasks.answers);
    process.exit(1);
  }
  console.log(`ok ${name} (${((Date.now() - begun) / 1000).toFixed(1)} s)`);
  done += 1;
}
console.log(`all ${done} steps are done`);
process.exit(0);
