// A LAZ decoder written elsewhere (the npm package laz-perf, installed with copc
// for the LAS reader test) decompresses the point layer's LAZ files; every
// point must equal, byte for byte and so field for field, extra bytes included,
// the record of the LAS export of the same points. make_laz_sample writes the cases.
//
// usage: node laz_reader_test.js MAKE_LAZ_SAMPLE INSTALL_DIR WORK_DIR
// Exit 77 (skipped) only when the decoder could not be installed because npm
// cannot reach its registry.

'use strict';
const fs = require('fs');
const path = require('path');
const { execFileSync } = require('child_process');

const [maker, installDir, workDir] = process.argv.slice(2);
const SKIP = 77;

function loadDecoder() {
  try {
    return require(path.join(installDir, 'node_modules', 'laz-perf'));
  } catch (error) {
    const marker = path.join(installDir, 'npm-unreachable');
    if (fs.existsSync(marker)) {
      console.log(`skipped: the LAZ decoder is not installed (${fs.readFileSync(marker, 'utf8').trim()})`);
      process.exit(SKIP);
    }
    throw new Error(`the LAZ decoder is not installed in ${installDir} (tests/support/install_npm_reader.sh): ${error.message}`);
  }
}

let failures = 0;
function check(ok, what) {
  if (ok) return;
  if (failures < 20) console.error(`FAIL: ${what}`);
  ++failures;
}

// Record fields by their first byte: a differing byte names its field.
const FIELDS = [
  [0, 'X'], [4, 'Y'], [8, 'Z'], [12, 'intensity'], [14, 'return number / number of returns'],
  [15, 'flags'], [16, 'classification'], [17, 'user data'], [18, 'scan angle'], [20, 'point source ID'],
  [22, 'GPS time'],
];
function fieldAt(offset, extraAt) {
  if (offset >= extraAt) return `extra byte ${offset - extraAt}`;
  if (offset >= 30) return 'RGB';
  let name = 'X';
  for (const [start, field] of FIELDS) if (offset >= start) name = field;
  return name;
}

function decodeCase(LazPerf, name, chunkSize, colour) {
  const las = fs.readFileSync(path.join(workDir, `${name}.las`));
  const laz = fs.readFileSync(path.join(workDir, `${name}.laz`));
  const threads = fs.readFileSync(path.join(workDir, `${name}.threads.laz`));
  check(laz.equals(threads), `${name}: the file written on three threads differs from the one on one`);

  const lasOffset = las.readUInt32LE(96), length = las.readUInt16LE(105);
  const count = Number(las.readBigUInt64LE(247));
  const format = colour ? 7 : 6;
  check(las[104] === format && laz[104] === (format | 0x80), `${name}: point formats ${las[104]} and ${laz[104]}`);
  check(laz.readUInt32LE(100) === 2, `${name}: two records before the points`);
  // The header is the LAS header but for the format, the point offset and the record count.
  for (let i = 0; i < 375; ++i) {
    if (i === 104 || (i >= 96 && i < 104)) continue;
    if (las[i] !== laz[i]) {
      check(false, `${name}: header byte ${i} is ${laz[i]}, LAS has ${las[i]}`);
      break;
    }
  }
  check(las.subarray(375, lasOffset).equals(laz.subarray(375, lasOffset)), `${name}: the Extra Bytes record`);
  const laszipVlr = laz.subarray(lasOffset, laz.readUInt32LE(96));
  check(laszipVlr.toString('latin1', 2, 16) === 'laszip encoded' && laszipVlr.readUInt16LE(18) === 22204,
    `${name}: the LASzip record's user ID and record ID`);
  check(laszipVlr.readUInt32LE(54 + 12) === chunkSize, `${name}: chunk size ${laszipVlr.readUInt32LE(54 + 12)}`);
  const table = Number(laz.readBigInt64LE(laz.readUInt32LE(96)));
  check(table > laz.readUInt32LE(96) && table + 8 <= laz.length && laz.readUInt32LE(table) === 0 &&
    laz.readUInt32LE(table + 4) === Math.ceil(count / chunkSize), `${name}: the chunk table at ${table}`);

  const buffer = LazPerf._malloc(laz.length);
  const point = LazPerf._malloc(length);
  const reader = new LazPerf.LASZip();
  try {
    LazPerf.HEAPU8.set(laz, buffer);
    reader.open(buffer, laz.length);
    check(reader.getCount() === count, `${name}: the decoder counts ${reader.getCount()} points, LAS ${count}`);
    check(reader.getPointLength() === length, `${name}: point length ${reader.getPointLength()}`);
    check((reader.getPointFormat() & 0x3f) === format, `${name}: point format ${reader.getPointFormat()}`);
    const extraAt = length - 32;
    let bad = 0;
    for (let i = 0; i < count; ++i) {
      reader.getPoint(point);
      const decoded = LazPerf.HEAPU8.subarray(point, point + length);
      const expected = las.subarray(lasOffset + i * length, lasOffset + (i + 1) * length);
      for (let b = 0; b < length; ++b) {
        if (decoded[b] !== expected[b]) {
          if (bad < 5) check(false, `${name}: point ${i}: ${fieldAt(b, extraAt)} (byte ${b}) is ${decoded[b]}, LAS has ${expected[b]}`);
          ++bad;
          break;
        }
      }
    }
    check(bad === 0, `${name}: ${bad} of ${count} points differ`);
    console.log(`${name}: ${count} points, chunks of ${chunkSize}; LAZ ${laz.length} bytes, LAS ${las.length}`);
  } finally {
    reader.delete();
    LazPerf._free(point);
    LazPerf._free(buffer);
  }
}

async function main() {
  const { createLazPerf } = loadDecoder();
  execFileSync(maker, [workDir], { stdio: 'inherit' });
  const LazPerf = await createLazPerf();
  const cases = fs.readFileSync(path.join(workDir, 'cases.txt'), 'utf8').trim().split('\n');
  check(cases.length >= 5, `${cases.length} cases`);
  for (const line of cases) {
    const [name, chunkSize, colour] = line.split(' ');
    decodeCase(LazPerf, name, Number(chunkSize), colour === '1');
  }
  if (failures > 0) {
    console.error(`${failures} checks failed`);
    process.exit(1);
  }
}

main().catch((error) => {
  console.error(error);
  process.exit(1);
});
