#!/usr/bin/env node
// SPDX-License-Identifier: Apache-2.0
// A media server as node's UPnP modules see it: node-ssdp finds it, upnp-device-client reads its
// description, browses and subscribes. Run inside the loopback-only namespace, with NODE_PATH
// naming the node_modules folder that holds node-ssdp and upnp-device-client:
//
//   node cp_node.js (--udn UUID | --location URL) --folder DIR --expect REL [--bytes N]
//                   [--timeout S]
//
// The same road as cp_gupnp.py: M-SEARCH for MediaServer:1 on 127.0.0.1, keep only the server
// with the given UDN or description URL, friendly name, Browse of the root, descent through
// containers (one named like the next folder of REL first) to the item standing for the file
// REL of DIR (same title as its name without extension, else same size), a ranged GET of its
// http-get resource compared with the file. Then a subscription to ContentDirectory events,
// reported but not judged. Exit 0 when all passed, 1 with the failing step.
'use strict';

const dgram = require('dgram');
const fs = require('fs');
const http = require('http');
const path = require('path');

const MEDIA_SERVER = 'urn:schemas-upnp-org:device:MediaServer:1';

function say(text) {
  process.stdout.write('node: ' + text + '\n');
}

function fail(text) {
  say('FAIL: ' + text);
  process.exit(1);
}

function parseArgs(argv) {
  const args = {bytes: 4096, timeout: 20};
  for (let i = 0; i < argv.length; i += 2) {
    const key = argv[i].replace(/^--/, '');
    if (!['udn', 'location', 'folder', 'expect', 'bytes', 'timeout'].includes(key) ||
        i + 1 >= argv.length) {
      fail('usage: cp_node.js (--udn UUID | --location URL) --folder DIR --expect REL ' +
           '[--bytes N] [--timeout S]');
    }
    args[key] = ['bytes', 'timeout'].includes(key) ? Number(argv[i + 1]) : argv[i + 1];
  }
  if (!(args.udn || args.location) || !args.folder || !args.expect) {
    fail('--udn or --location, --folder and --expect are needed');
  }
  return args;
}

// node-ssdp opens sockets only on interfaces not flagged internal, so on a loopback-only
// machine it finds none. This client gets one socket bound to 127.0.0.1 instead (node-ssdp then
// joins the SSDP group on that address); M-SEARCH answers come back to it by unicast.
function loopbackSsdpClient() {
  const {Client} = require('node-ssdp');
  const client = new Client({explicitSocketBind: true});
  client._createSockets = function createLoopbackSocket() {
    const socket = dgram.createSocket({type: 'udp4', reuseAddr: true});
    socket.unref();
    this.sockets = {'127.0.0.1': socket};
  };
  return client;
}

function discover(args, seconds) {
  return new Promise((resolve, reject) => {
    const client = loopbackSsdpClient();
    const others = new Set();
    let timer = null;
    let searches = 0;
    const finish = (error, value) => {
      clearInterval(timer);
      client.stop();
      if (error) reject(error); else resolve(value);
    };
    client.on('response', (headers) => {
      const usn = headers.USN || '';
      const udn = usn.split('::')[0];
      const location = headers.LOCATION || '';
      if ((args.udn && udn === args.udn) || (args.location && location === args.location)) {
        finish(null, {udn, location, server: headers.SERVER || ''});
      } else {
        others.add(udn + ' at ' + location);
      }
    });
    // One M-SEARCH a second, as a control point repeats it against lost datagrams.
    const search = () => {
      searches += 1;
      if (searches > seconds) {
        finish(new Error('no ' + MEDIA_SERVER + ' with ' + (args.udn || args.location) +
                         ' after ' + (searches - 1) + ' searches (seen: ' +
                         ([...others].join(', ') || 'nothing') + ')'));
        return;
      }
      client.search(MEDIA_SERVER);
    };
    client.start().then(() => {
      search();
      timer = setInterval(search, 1000);
    }, (error) => finish(error));
  });
}

function decodeEntities(text) {
  return text.replace(/&(#x[0-9a-fA-F]+|#[0-9]+|amp|lt|gt|quot|apos);/g, (_, e) => {
    if (e[0] === '#') {
      return String.fromCodePoint(e[1] === 'x' ? parseInt(e.slice(2), 16) : Number(e.slice(1)));
    }
    return {amp: '&', lt: '<', gt: '>', quot: '"', apos: '\''}[e];
  });
}

function attributes(text) {
  const out = {};
  for (const m of text.matchAll(/([\w:.-]+)\s*=\s*("([^"]*)"|'([^']*)')/g)) {
    out[m[1]] = decodeEntities(m[3] !== undefined ? m[3] : m[4]);
  }
  return out;
}

// DIDL-Lite as the browse road needs it: containers and items with id, title, class and their
// res elements. Objects do not nest in a Browse result, so a flat scan is enough.
function parseDidl(xml) {
  if (!/<DIDL-Lite[\s>]/.test(xml)) throw new Error('Result is not DIDL-Lite: ' + xml.slice(0, 120));
  const objects = [];
  const element = /<(container|item)(\s[^>]*)?(\/>|>([\s\S]*?)<\/\1>)/g;
  for (const m of xml.matchAll(element)) {
    const body = m[4] || '';
    const text = (tag) => {
      const t = body.match(new RegExp('<' + tag + '(?:\\s[^>]*)?>([\\s\\S]*?)</' + tag + '>'));
      return t ? decodeEntities(t[1]) : '';
    };
    const resources = [];
    for (const r of body.matchAll(/<res(\s[^>]*)?>([\s\S]*?)<\/res>/g)) {
      const a = attributes(r[1] || '');
      resources.push({url: decodeEntities(r[2].trim()), protocolInfo: a.protocolInfo || '',
                      size: a.size !== undefined ? Number(a.size) : -1});
    }
    objects.push({kind: m[1], id: attributes(m[2] || '').id, title: text('dc:title'),
                  upnpClass: text('upnp:class'), resources});
  }
  return objects;
}

function describe(o) {
  return o.kind + ' ' + JSON.stringify(o.title) + ' id=' + o.id + ' class=' + o.upnpClass;
}

function httpGetResource(o) {
  return o.resources.find((r) => r.protocolInfo.startsWith('http-get:') && r.url) || null;
}

function matching(objects, title, size) {
  const items = objects.filter((o) => o.kind === 'item' && httpGetResource(o));
  return items.find((o) => o.title === title) ||
         items.find((o) => size > 0 && httpGetResource(o).size === size) || null;
}

function call(client, action, params) {
  return new Promise((resolve, reject) => {
    client.callAction('ContentDirectory', action, params, (error, result) => {
      if (error) reject(error); else resolve(result);
    });
  });
}

async function browse(client, id) {
  let result;
  try {
    result = await call(client, 'Browse', {ObjectID: id, BrowseFlag: 'BrowseDirectChildren',
                                           Filter: '*', StartingIndex: 0, RequestedCount: 0,
                                           SortCriteria: ''});
  } catch (error) {
    // ENOACTION: the module checks the service description before it sends anything.
    const scpd = error.code === 'ENOACTION'
      ? ' (according to ' + client.deviceDescription.services[
          'urn:upnp-org:serviceId:ContentDirectory'].SCPDURL + ')' : '';
    throw new Error('Browse ' + JSON.stringify(id) + ': ' + error.message + scpd +
                    (error.statusCode ? ' (HTTP ' + error.statusCode + ')' : ''));
  }
  const objects = parseDidl(result.Result || '');
  const returned = Number(result.NumberReturned);
  const total = Number(result.TotalMatches);
  if (objects.length !== returned) {
    throw new Error('Browse ' + JSON.stringify(id) + ': NumberReturned ' + returned + ' but ' +
                    objects.length + ' objects in Result');
  }
  return {objects, returned, total};
}

const sleep = (ms) => new Promise((resolve) => setTimeout(resolve, ms));

async function findItem(client, args, title, size, deadline) {
  const dir = path.dirname(args.expect);
  const folders = dir === '.' ? [] : dir.split('/');
  let id = '0';
  let where = 'root';
  for (let level = 0; level < 8; level++) {
    let answer = await browse(client, id);
    // A server that has just started may still be filling its database.
    while (answer.total === 0 && id === '0' && Date.now() < deadline - 2000) {
      say('Browse 0 returned no objects yet; asking again in 0.5 s');
      await sleep(500);
      answer = await browse(client, id);
    }
    say('Browse ' + id + ' (' + where + '): NumberReturned ' + answer.returned +
        ', TotalMatches ' + answer.total);
    for (const o of answer.objects) say('  ' + describe(o));
    const item = matching(answer.objects, title, size);
    if (item) return item;
    const containers = answer.objects.filter((o) => o.kind === 'container');
    if (containers.length === 0) {
      throw new Error('no item for ' + JSON.stringify(args.expect) + ' under ' + where +
                      ' and no container to descend into');
    }
    const named = folders.length ? containers.find((c) => c.title === folders[0]) : undefined;
    const chosen = named || containers[0];
    if (named) folders.shift();
    say('  descending into ' + JSON.stringify(chosen.title) +
        (named ? ' (named like the folder)' : ' (first)'));
    id = chosen.id;
    where += '/' + chosen.title;
  }
  throw new Error('no item for ' + JSON.stringify(args.expect) + ' within 8 levels');
}

function rangedGet(url, count) {
  return new Promise((resolve, reject) => {
    const request = http.get(url, {headers: {Range: 'bytes=0-' + (count - 1)}, timeout: 5000},
                             (res) => {
                               const parts = [];
                               res.on('data', (d) => parts.push(d));
                               res.on('end', () => resolve({status: res.statusCode,
                                                            headers: res.headers,
                                                            body: Buffer.concat(parts)}));
                               res.on('error', reject);
                             });
    request.on('timeout', () => request.destroy(new Error('no answer within 5 s')));
    request.on('error', reject);
  });
}

// Reports whether the server's initial event arrived within `ms`; never fails the run.
// upnp-device-client drops a NOTIFY whose SID it does not know yet, so an initial event the
// server sends before its SUBSCRIBE answer has been read is lost to it.
function subscribeAndWait(client, ms) {
  return new Promise((resolve) => {
    let settled = false;
    const listener = (event) => {
      if (settled) return;
      settled = true;
      say('event: ' + JSON.stringify(event));
      resolve('initial event received');
    };
    client.on('error', (error) => {
      if (settled) return;
      settled = true;
      resolve('subscription failed: ' + error.message +
              (error.statusCode ? ' (HTTP ' + error.statusCode + ')' : ''));
    });
    client.subscribe('ContentDirectory', listener);
    setTimeout(() => {
      if (settled) return;
      settled = true;
      const sub = client.subscriptions['urn:upnp-org:serviceId:ContentDirectory'];
      resolve(sub ? 'subscribed (SID ' + sub.sid + ') but no event within ' + ms + ' ms'
                  : 'no SUBSCRIBE answer within ' + ms + ' ms');
    }, ms);
  }).then((outcome) => {
    say('subscription: ' + outcome);
  });
}

async function run(args) {
  const started = Date.now();
  const deadline = started + args.timeout * 1000;
  const file = path.join(args.folder, args.expect);
  const content = fs.readFileSync(file);
  const title = path.basename(args.expect, path.extname(args.expect));
  say('expecting ' + JSON.stringify(args.expect) + ' (' + content.length + ' bytes, title ' +
      JSON.stringify(title) + ')');

  const found = await discover(args, Math.max(1, Math.min(8, Math.floor(args.timeout) - 2)));
  say('found ' + found.udn + ' at ' + found.location + ' (SERVER: ' + found.server + ')');

  const UpnpDeviceClient = require('upnp-device-client');
  const client = new UpnpDeviceClient(found.location);
  const description = await new Promise((resolve, reject) => {
    client.getDeviceDescription((error, d) => (error ? reject(error) : resolve(d)));
  });
  if (!description.friendlyName) throw new Error('the description has no friendlyName');
  say('description: friendlyName ' + JSON.stringify(description.friendlyName) + ', model ' +
      JSON.stringify(description.modelName));
  const cd = description.services['urn:upnp-org:serviceId:ContentDirectory'];
  if (!cd) throw new Error('the description lists no ContentDirectory service');
  say('ContentDirectory control URL ' + cd.controlURL);

  const item = await findItem(client, args, title, content.length, deadline);
  const res = httpGetResource(item);
  say('item ' + JSON.stringify(item.title) + ': res ' + res.url);
  say('  protocolInfo ' + res.protocolInfo + ', size ' + res.size);
  if (res.size !== -1 && res.size !== content.length) {
    throw new Error('res size ' + res.size + ', the file has ' + content.length + ' bytes');
  }
  const count = Math.min(args.bytes, content.length);
  const got = await rangedGet(res.url, count).catch((error) => {
    throw new Error('GET ' + res.url + ' with Range: ' + error.message);
  });
  say('GET Range: bytes=0-' + (count - 1) + ' -> HTTP ' + got.status + ', Content-Range ' +
      (got.headers['content-range'] || '<none>') + ', ' + got.body.length + ' bytes');
  if (got.status !== 206) throw new Error('a Range request was answered with HTTP ' + got.status);
  if (!got.body.equals(content.subarray(0, count))) {
    let i = 0;
    while (i < got.body.length && got.body[i] === content[i]) i++;
    throw new Error('the ' + got.body.length + ' bytes fetched differ from the file (first ' +
                    'difference at ' + i + ')');
  }
  say('bytes 0..' + (count - 1) + ' match the file on disk');

  await subscribeAndWait(client, Math.max(500, Math.min(3000, deadline - Date.now() - 1000)));
}

function main() {
  const args = parseArgs(process.argv.slice(2));
  // Bounds the whole run whatever hangs (and keeps node running until run() settles: both ends
  // of it call process.exit).
  setTimeout(() => fail('out of time after ' + args.timeout + ' s'), args.timeout * 1000);
  // A malformed answer can make the modules throw from inside their callbacks.
  process.on('uncaughtException', (error) => fail('uncaught: ' + (error.stack || error)));
  run(args).then(() => {
    say('PASS');
    // The subscription's renewal timer and eventing server would keep node running.
    process.exit(0);
  }, (error) => fail(error.message));
}

main();
