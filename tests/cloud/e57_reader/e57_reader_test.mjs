// An E57 reader written elsewhere (the npm package web-e57, a WebAssembly build
// of an independent implementation that checks every page's checksum) reads
// the point layer's E57 files. Its XYZ conversion must give every point of the
// layer's columns, in order, to the 0.1 mm steps, with the intensity as grey;
// its XML conversion must give back the XML section, whose scans (names,
// GUIDs, record counts, bounds, line groups) and images are checked here.
//
// usage: node --experimental-wasm-modules e57_reader_test.mjs MAKE_E57_SAMPLE INSTALL_DIR WORK_DIR
// Exit 77 (skipped) only when the reader could not be installed because npm
// cannot reach its registry.

import fs from 'fs';
import path from 'path';
import { execFileSync } from 'child_process';
import { pathToFileURL } from 'url';

const [maker, installDir, workDir] = process.argv.slice(2);
const SKIP = 77;

async function loadReader() {
  const entry = path.join(installDir, 'node_modules', 'web-e57', 'e57.js');
  if (!fs.existsSync(entry)) {
    const marker = path.join(installDir, 'npm-unreachable');
    if (fs.existsSync(marker)) {
      console.log(`skipped: the E57 reader is not installed (${fs.readFileSync(marker, 'utf8').trim()})`);
      process.exit(SKIP);
    }
    throw new Error(`the E57 reader is not installed in ${installDir} (tests/support/install_npm_reader.sh)`);
  }
  return import(pathToFileURL(entry).href);
}

let failures = 0;
function check(ok, what) {
  if (ok) return;
  if (failures < 20) console.error(`FAIL: ${what}`);
  ++failures;
}

function readColumns(file) {
  const lines = fs.readFileSync(file, 'utf8').trim().split('\n');
  const names = lines[0].split(' ');
  return lines.slice(1).map((line) => {
    const values = line.split(' ').map(Number);
    return Object.fromEntries(names.map((name, i) => [name, values[i]]));
  });
}

// The children of an element with the tag, directly inside it.
function children(xml, tag) {
  const found = [];
  let depth = 0;
  const re = /<(\/?)([A-Za-z0-9]+)([^>]*?)(\/?)>/g;
  let m;
  let start = -1;
  while ((m = re.exec(xml)) !== null) {
    const [whole, closing, name, , selfClosing] = m;
    if (!closing) {
      if (depth === 0 && name === tag) start = m.index;
      if (!selfClosing) ++depth;
      else if (depth === 0 && name === tag) found.push(whole);
    } else {
      --depth;
      if (depth === 0 && name === tag) found.push(xml.slice(start, m.index + whole.length));
    }
  }
  return found;
}
// The body of the first element with the tag, anywhere.
function element(xml, tag) {
  const m = new RegExp(`<${tag}( [^>]*)?(/>|>([\\s\\S]*?)</${tag}>)`).exec(xml);
  return m ? { attributes: m[1] || '', body: m[3] || '' } : undefined;
}
function text(xml, tag) {
  const e = element(xml, tag);
  if (!e) return undefined;
  const cdata = /<!\[CDATA\[([\s\S]*?)\]\]>/.exec(e.body);
  return cdata ? cdata[1] : e.body.trim();
}
function attribute(attributes, name) {
  const m = new RegExp(`${name}="([^"]*)"`).exec(attributes);
  return m ? m[1] : undefined;
}
function inside(xml, tag) {
  const e = element(xml, tag);
  return e ? e.body : '';
}

function checkFile(convertE57, name) {
  const data = new Uint8Array(fs.readFileSync(path.join(workDir, `${name}.e57`)));
  const expected = JSON.parse(fs.readFileSync(path.join(workDir, `${name}.json`), 'utf8'));
  const scans = expected.scans.map((s) => ({ ...s, points: readColumns(path.join(workDir, s.columns)) }));

  // Every point of every scan, in order: x y z and a grey level (its intensity over 0..4095).
  const xyz = convertE57(data, 'XYZ').trim().split('\n');
  const all = scans.flatMap((s) => s.points);
  check(xyz.length === all.length, `${name}: ${xyz.length} XYZ lines for ${all.length} points`);
  for (let i = 0; i < Math.min(xyz.length, all.length); ++i) {
    const [x, y, z, r, g, b] = xyz[i].split(' ').map(Number);
    const p = all[i];
    const at = `${name}: point ${i}`;
    const near = (a, e) => Math.abs(a - e) <= 0.00005 + 1e-9;
    check(near(x, p.x) && near(y, p.y) && near(z, p.z), `${at}: (${x}, ${y}, ${z}) against (${p.x}, ${p.y}, ${p.z})`);
    const grey = Math.floor((p.intensity / 4095) * 255);
    check(r === g && g === b && Math.abs(r - grey) <= 1, `${at}: grey ${r} ${g} ${b} for intensity ${p.intensity}`);
  }

  const xml = convertE57(data, 'XML');
  check(text(xml, 'formatName') === 'ASTM E57 3D Imaging Data File', `${name}: format name`);
  check(/^\{[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}\}$/.test(text(xml, 'guid')),
    `${name}: file GUID ${text(xml, 'guid')}`);
  const data3D = children(inside(xml, 'data3D'), 'vectorChild');
  check(data3D.length === scans.length, `${name}: ${data3D.length} scans`);
  for (let k = 0; k < Math.min(data3D.length, scans.length); ++k) {
    const s = data3D[k];
    const want = scans[k];
    const at = `${name}: scan ${k}`;
    check(text(s, 'name') === want.name, `${at}: name ${text(s, 'name')}`);
    check(text(s, 'guid') === want.guid, `${at}: GUID ${text(s, 'guid')} against ${want.guid}`);
    check(text(s, 'sensorSerialNumber') === '4711' && text(s, 'sensorFirmwareVersion') === '4.2.1',
      `${at}: sensor texts`);
    const points = element(s, 'points');
    check(Number(attribute(points.attributes, 'recordCount')) === want.points.length,
      `${at}: ${attribute(points.attributes, 'recordCount')} records for ${want.points.length}`);
    const bounds = inside(s, 'cartesianBounds');
    for (const axis of ['x', 'y', 'z']) {
      const steps = want.points.map((p) => Math.round(p[axis] / 0.0001));
      const low = Math.min(...steps) / 10000, high = Math.max(...steps) / 10000;
      check(Math.abs(Number(text(bounds, `${axis}Minimum`)) - low) < 1e-9, `${at}: ${axis} minimum ${text(bounds, `${axis}Minimum`)} against ${low}`);
      check(Math.abs(Number(text(bounds, `${axis}Maximum`)) - high) < 1e-9, `${at}: ${axis} maximum ${text(bounds, `${axis}Maximum`)} against ${high}`);
    }
    const ranges = want.points.map((p) => Math.round(p.range / 0.0001) / 10000);
    check(Math.abs(Number(text(inside(s, 'sphericalBounds'), 'rangeMaximum')) - Math.max(...ranges)) < 1e-9,
      `${at}: range maximum`);
    const index = inside(s, 'indexBounds');
    const lines = want.points.map((p) => p.line);
    check(Number(text(index, 'columnMinimum')) === Math.min(...lines) && Number(text(index, 'columnMaximum')) === Math.max(...lines),
      `${at}: columns ${text(index, 'columnMinimum')}..${text(index, 'columnMaximum')}`);
    check(Number(text(index, 'returnMaximum')) === Math.max(...want.points.map((p) => p.returnNumber)) - 1, `${at}: return maximum`);
    const limits = inside(s, 'intensityLimits');
    check(text(limits, 'intensityMinimum') === '0' && text(limits, 'intensityMaximum') === '4095', `${at}: intensity limits`);
    // One group a line, in the order of the points.
    let groups = 0;
    for (let i = 0; i < want.points.length; ++i) if (i === 0 || want.points[i].line !== want.points[i - 1].line) ++groups;
    const grouping = inside(s, 'groupingByLine');
    check(text(grouping, 'idElementName') === 'columnIndex', `${at}: grouping by columnIndex`);
    check(Number(text(grouping, 'groupsSize')) === groups, `${at}: ${text(grouping, 'groupsSize')} groups for ${groups} lines`);
    check(Number(attribute(element(grouping, 'groups').attributes, 'recordCount')) === groups, `${at}: group records`);
    check((want.ticks ? 1 : 0) === (want.points.every((p) => p.time >= 0) ? 1 : 0) || !want.ticks, `${at}: times`);
  }
  const images = children(inside(xml, 'images2D'), 'vectorChild');
  check(images.length === expected.images.length, `${name}: ${images.length} images`);
  for (let k = 0; k < Math.min(images.length, expected.images.length); ++k) {
    const image = images[k];
    const want = expected.images[k];
    const at = `${name}: image ${k}`;
    check(text(image, 'name') === want.name, `${at}: name ${text(image, 'name')}`);
    check(text(image, 'associatedData3DGuid') === want.scan, `${at}: scan ${text(image, 'associatedData3DGuid')}`);
    const blob = element(image, `${want.kind}Image`);
    check(blob !== undefined && Number(attribute(blob.attributes, 'length')) > 0, `${at}: ${want.kind} blob`);
    check(Number(text(image, 'imageWidth')) === want.width && Number(text(image, 'imageHeight')) === want.height,
      `${at}: ${text(image, 'imageWidth')} x ${text(image, 'imageHeight')}`);
  }
  // Lines proper: the shots before the first line are not one.
  const lineCounts = scans.map((s) => new Set(s.points.filter((p) => p.line >= 0).map((p) => p.line)).size);
  console.log(`${name}: ${all.length} points in ${scans.length} scans (lines ${lineCounts.join(', ')}), ${images.length} images`);
  return lineCounts;
}

async function main() {
  const { convertE57 } = await loadReader();
  execFileSync(maker, [workDir], { stdio: 'inherit' });
  const lineCounts = ['single', 'short', 'set'].flatMap((name) => checkFile(convertE57, name));
  check(lineCounts.some((n) => n === 1) && lineCounts.some((n) => n > 10), `one scan of one line and one of many: ${lineCounts}`);
  // A checksum the reader must refuse: one byte of the XML changed.
  const damaged = new Uint8Array(fs.readFileSync(path.join(workDir, 'single.e57')));
  damaged[damaged.length - 100] ^= 1;
  let refused = false;
  try {
    convertE57(damaged, 'XML');
  } catch (error) {
    refused = true;
  }
  check(refused, 'a changed byte is refused by its page checksum');
  console.log(`${failures} mismatches`);
  process.exit(failures === 0 ? 0 : 1);
}

main().catch((error) => {
  console.error(error);
  process.exit(1);
});
