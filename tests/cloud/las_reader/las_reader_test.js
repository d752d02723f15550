// A LAS reader written elsewhere (the npm package copc) reads the point layer's
// LAS file: header, every point and the extra bytes must agree with the layer's
// own columns, which make_las_sample writes beside the file.
//
// usage: node las_reader_test.js MAKE_LAS_SAMPLE INSTALL_DIR WORK_DIR
// Exit 77 (skipped) only when the reader could not be installed because npm
// cannot reach its registry.

'use strict';
const fs = require('fs');
const path = require('path');
const { execFileSync } = require('child_process');

const [maker, installDir, workDir] = process.argv.slice(2);
const SKIP = 77;

function loadReader() {
  try {
    return require(path.join(installDir, 'node_modules', 'copc'));
  } catch (error) {
    const marker = path.join(installDir, 'npm-unreachable');
    if (fs.existsSync(marker)) {
      console.log(`skipped: the LAS reader is not installed (${fs.readFileSync(marker, 'utf8').trim()})`);
      process.exit(SKIP);
    }
    throw new Error(`the LAS reader is not installed in ${installDir} (tests/support/install_npm_reader.sh): ${error.message}`);
  }
}

let failures = 0;
function check(ok, what) {
  if (ok) return;
  if (failures < 20) console.error(`FAIL: ${what}`);
  ++failures;
}
function near(a, b, tolerance) {
  return Math.abs(a - b) <= tolerance;
}
// Relative to the size of the values: a reader's scale x count + offset may
// differ from the layer's own conversion in the last bits.
function close(a, b) {
  return Math.abs(a - b) <= 1e-12 * Math.max(1, Math.abs(b));
}

function readColumns(file) {
  const lines = fs.readFileSync(file, 'utf8').trim().split('\n');
  const names = lines[0].split(' ');
  return lines.slice(1).map((line) => {
    const values = line.split(' ').map(Number);
    return Object.fromEntries(names.map((name, i) => [name, values[i]]));
  });
}

function readCsvColours(file) {
  return fs
    .readFileSync(file, 'utf8')
    .trim()
    .split('\n')
    .slice(1)
    .map((line) => line.split(',').slice(8).map(Number));
}

// The layer's scan angle in the format's 0.006-degree steps, -180 to +180 degrees.
function scanAngleSteps(radians) {
  let degrees = (radians * 180) / Math.PI;
  if (degrees > 180) degrees -= 360;
  return degrees / 0.006;
}

async function main() {
  const { Las } = loadReader();
  execFileSync(maker, [workDir], { stdio: 'inherit' });
  const lasPath = path.join(workDir, 'points.las');
  const file = fs.readFileSync(lasPath);
  const points = readColumns(path.join(workDir, 'columns.txt'));
  const colours = readCsvColours(path.join(workDir, 'points.csv'));
  check(points.length > 1000 && colours.length === points.length, `${points.length} points, ${colours.length} colours`);

  const header = Las.Header.parse(file.subarray(0, 375));
  check(header.majorVersion === 1 && header.minorVersion === 4, 'version 1.4');
  check(header.headerLength === 375, `header length ${header.headerLength}`);
  check(header.pointDataRecordFormat === 7 && header.pointDataRecordLength === 68, 'point format 7, 68 bytes');
  check(header.globalEncoding === 16, `global encoding ${header.globalEncoding}`);
  check(header.fileSourceId === 0x1234, `file source ID ${header.fileSourceId}`);
  check(header.pointCount === points.length, `point count ${header.pointCount} against ${points.length}`);
  check(header.vlrCount === 1 && header.evlrCount === 0, 'one VLR, no extended ones');
  check(file.length === header.pointDataOffset + points.length * 68, 'file length');
  const byReturn = new Array(15).fill(0);
  for (const p of points) ++byReturn[p.returnNumber - 1];
  check(JSON.stringify(header.pointCountByReturn) === JSON.stringify(byReturn), `by return ${header.pointCountByReturn}`);
  const axes = ['x', 'y', 'z'];
  for (let a = 0; a < 3; ++a) {
    check(header.scale[a] === 0.0001 && header.offset[a] === 0, `scale and offset of ${axes[a]}`);
    const steps = points.map((p) => Math.round(p[axes[a]] / 0.0001));
    check(near(header.min[a], steps.reduce((m, v) => Math.min(m, v)) * 0.0001, 1e-12), `min ${axes[a]} ${header.min[a]}`);
    check(near(header.max[a], steps.reduce((m, v) => Math.max(m, v)) * 0.0001, 1e-12), `max ${axes[a]} ${header.max[a]}`);
  }

  const vlrs = await Las.Vlr.walk(lasPath, header);
  const vlr = Las.Vlr.at(vlrs, 'LASF_Spec', 4);
  const ebBytes = file.subarray(vlr.contentOffset, vlr.contentOffset + vlr.contentLength);
  const parsed = Las.ExtraBytes.parse(ebBytes);
  check(
    JSON.stringify(parsed.map((e) => e.name)) ===
      JSON.stringify(['Range', 'Pan', 'ScanAngle', 'Line', 'ShotIndex', 'NormalizedIntensity']),
    `extra bytes ${parsed.map((e) => e.name)}`
  );
  // copc 0.0.8 reads an entry's scale and offset big-endian (the format is
  // little-endian), so its scaled values are garbage: its entries are used
  // without them, giving the stored integers, and the scale and offset are read
  // here from the entry's bytes 112 and 136 and applied below.
  const eb = parsed.map(({ scale, offset, ...rest }) => rest);
  const scaling = parsed.map((e, i) => ({
    scale: e.scale === undefined ? 1 : ebBytes.readDoubleLE(192 * i + 112),
    offset: e.offset === undefined ? 0 : ebBytes.readDoubleLE(192 * i + 136),
  }));
  const body = file.subarray(header.pointDataOffset);
  const view = Las.View.create(body, header, eb);
  // Our extra byte ScanAngle takes the place of the format's own scan angle in
  // copc's view (extra bytes are laid over the standard fields by name): the
  // format's field is read through a view without extra bytes.
  const core = Las.View.create(body, header, []);
  check(view.pointCount === points.length, `view of ${view.pointCount} points`);

  const get = (v, name) => v.getter(name);
  const [X, Y, Z, I, R, N, C, SA, PS, T, RED, GREEN, BLUE] = [
    'X', 'Y', 'Z', 'Intensity', 'ReturnNumber', 'NumberOfReturns', 'Classification', 'ScanAngle', 'PointSourceId',
    'GpsTime', 'Red', 'Green', 'Blue',
  ].map((name) => get(core, name));
  const extra = ['Range', 'Pan', 'ScanAngle', 'Line', 'ShotIndex', 'NormalizedIntensity'].map((name) =>
    get(view, name)
  );
  const value = (k, i) => extra[k](i) * scaling[k].scale + scaling[k].offset;
  for (let i = 0; i < points.length; ++i) {
    const p = points[i];
    const at = `point ${i}`;
    check(near(X(i), p.x, 0.00005 + 1e-9) && near(Y(i), p.y, 0.00005 + 1e-9) && near(Z(i), p.z, 0.00005 + 1e-9),
      `${at}: position (${X(i)}, ${Y(i)}, ${Z(i)}) against (${p.x}, ${p.y}, ${p.z})`);
    check(I(i) === p.intensity * 16, `${at}: intensity ${I(i)} against ${p.intensity}`);
    check(R(i) === p.returnNumber && N(i) === p.numberOfReturns, `${at}: return ${R(i)} of ${N(i)}`);
    check(C(i) === 0, `${at}: classification ${C(i)}`);
    check(near(SA(i) / 0.006, scanAngleSteps(p.scanAngle), 0.5 + 1e-6), `${at}: scan angle ${SA(i)} degrees`);
    check(PS(i) === 0x1234, `${at}: point source ID ${PS(i)}`);
    check(T(i) === p.time && p.time > 0, `${at}: time ${T(i)} against ${p.time}`);
    const [r, g, b] = colours[i];
    check(RED(i) === r * 256 && GREEN(i) === g * 256 && BLUE(i) === b * 256, `${at}: colour ${RED(i)} ${GREEN(i)} ${BLUE(i)}`);
    check(close(value(0, i), p.range), `${at}: Range ${value(0, i)} against ${p.range}`);
    check(close(value(1, i), p.pan), `${at}: Pan ${value(1, i)} against ${p.pan}`);
    check(close(value(2, i), p.scanAngle), `${at}: ScanAngle ${value(2, i)} against ${p.scanAngle}`);
    check(extra[3](i) === p.line, `${at}: Line ${extra[3](i)} against ${p.line}`);
    check(extra[4](i) === p.shotIndex, `${at}: ShotIndex ${extra[4](i)} against ${p.shotIndex}`);
    check(extra[5](i) === p.normalized, `${at}: NormalizedIntensity ${extra[5](i)} against ${p.normalized}`);
  }
  console.log(`${points.length} points read by copc; ${failures} mismatches`);
  process.exit(failures === 0 ? 0 : 1);
}

main().catch((error) => {
  console.error(error);
  process.exit(1);
});
