import subprocess

import pytest

import kvr_decode


@pytest.mark.parametrize("keep, part", [(-1, "the bin width"), (-41, "the map version"), (-45, "the intensity model")])
def test_a_cut_map_is_refused_naming_the_missing_part(scan_set, kvrscan, tmp_path, keep, part):
    saved = tmp_path / "scan.map"
    subprocess.run([kvrscan, "map", str(scan_set["scan"]), "-o", str(saved)], check=True, stdout=subprocess.DEVNULL)
    assert kvr_decode.open(scan_set["scan"], map=saved).line_count == 39
    cut = tmp_path / "cut.map"
    cut.write_bytes(saved.read_bytes()[:keep])
    with pytest.raises(kvr_decode.Error, match="cut.map: map file cut short: it ends inside " + part):
        kvr_decode.open(scan_set["scan"], map=cut).line_count
