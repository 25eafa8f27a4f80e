#!/usr/bin/python3
"""python-canopen as the master of tessel-simdrive, on Qt's virtual CAN bus.

Usage: drive_conformance.py --simdrive PATH --eds PATH [--peer FOLDER] [--port N]

Starts tessel-simdrive with one drive (node 1) on its own virtual bus, then drives it with
python-canopen step by step and prints each step with its result. Exits 0 when every step
passed, 1 when one failed, 77 when python-canopen or python-can is not there (a skip).
"""

import argparse
import os
import socket
import subprocess
import sys
import threading
import time
import traceback

HERE = os.path.dirname(os.path.abspath(__file__))
SKIP = 77


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


class Steps:
    def __init__(self):
        self.failed = 0

    def run(self, name, step):
        try:
            detail = step()
            print("PASS  %s%s" % (name, ": " + detail if detail else ""), flush=True)
        except Exception as e:  # every failure is reported, and the next step runs
            self.failed += 1
            print("FAIL  %s: %s" % (name, e or type(e).__name__), flush=True)
            traceback.print_exc(limit=2, file=sys.stdout)


def logged_emcy(node, code, timeout=1.0):
    """The EMCY of this code in the node's log, waiting for it; None when it does not come.

    The log is searched rather than waited on: a drive answers within a millisecond, often
    before a wait for the next EMCY would have begun."""
    deadline = time.monotonic() + timeout
    while time.monotonic() < deadline:
        for error in list(node.emcy.log):
            if error.code == code:
                return error
        time.sleep(0.01)
    return None


def expect(condition, text):
    if not condition:
        raise AssertionError(text)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--simdrive", required=True)
    parser.add_argument("--eds", required=True)
    parser.add_argument("--peer", default=os.path.join(HERE, "../../../shared/peers/canopen"))
    parser.add_argument("--port", type=int, default=0)
    args = parser.parse_args()

    if not os.path.isdir(os.path.join(args.peer, "canopen")):
        print("SKIP  python-canopen is not at %s: the conformance steps did not run" % args.peer)
        return SKIP
    sys.path.insert(0, args.peer)
    sys.path.insert(0, HERE)
    try:
        import can  # noqa: F401
        import canopen
        from qtvirtualcan import QtVirtualCanBus
    except ImportError as e:
        print("SKIP  %s (Debian's python3-can is needed): the conformance steps did not run" % e)
        return SKIP

    port = args.port or free_port()
    drive = subprocess.Popen([args.simdrive, "--channel",
                              "virtualcan:tcp://127.0.0.1:%d/can0" % port, "--node", "1",
                              "--eds", args.eds],
                             stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    network = None
    steps = Steps()
    try:
        bus = QtVirtualCanBus("can0", port=port)
        network = canopen.Network(bus)
        network.connect()
        node = canopen.BaseNode402(1, args.eds)
        network.add_node(node)
        node.sdo.RESPONSE_TIMEOUT = 1.0

        def booted():
            # The drive's boot loader listens first; its application then sends boot-up.
            node.nmt.wait_for_heartbeat(timeout=5)
            return "heartbeat state %s" % node.nmt.state
        steps.run("the drive answers", booted)

        def identity():
            vendor = node.sdo["Identity Object"]["Vendor-ID"].raw
            name = node.sdo["Manufacturer Device Name"].raw
            return "vendor 0x%X, %s" % (vendor, name)
        steps.run("EDS loaded, identity read by SDO", identity)

        def read_pdos():
            node.tpdo.read()
            node.rpdo.read()
            first = [v.name for v in node.tpdo[1].map]
            expect(first == ["Statusword"], "TPDO1 maps %s" % first)
            expect([v.name for v in node.rpdo[1].map] == ["Controlword"], "RPDO1")
            return "TPDO1 %s, RPDO3 %s" % (first, [v.name for v in node.rpdo[3].map])
        steps.run("PDO configuration read from the drive", read_pdos)

        def remap():
            node.tpdo[1].clear()
            node.tpdo[1].add_variable("Statusword")
            node.tpdo[1].add_variable("Position Actual Value")
            node.tpdo[1].trans_type = 1
            node.tpdo[1].enabled = True
            node.tpdo[2].clear()
            node.tpdo[2].add_variable("Statusword")
            node.tpdo[2].trans_type = 255
            node.tpdo[2].event_timer = 50
            node.tpdo[2].enabled = True
            node.rpdo[1].clear()
            node.rpdo[1].add_variable("Controlword")
            node.rpdo[1].add_variable("Target Position")
            node.rpdo[1].trans_type = 255
            node.rpdo[1].enabled = True
            node.tpdo.save()
            node.rpdo.save()
            raw = node.sdo[0x1A00][2].raw
            expect(raw == 0x60640020, "1A00 sub 2 reads 0x%08X" % raw)
            return "TPDO1 statusword + position on every SYNC, TPDO2 on a 50 ms event timer"
        steps.run("TPDO and RPDO remapped", remap)

        node.nmt.state = "OPERATIONAL"
        time.sleep(0.1)

        def on_sync():
            node.tpdo[1].wait_for_reception(timeout=0.01)  # drops what came before
            received = []
            node.tpdo[1].add_callback(lambda pdo: received.append(time.monotonic()))
            network.sync.start(0.01)
            time.sleep(0.5)
            network.sync.stop()
            expect(len(received) >= 30, "%d TPDO1 in 0.5 s of 10 ms SYNC" % len(received))
            return "%d TPDO1 for about 50 SYNC" % len(received)
        steps.run("TPDO on SYNC", on_sync)

        def on_event_timer():
            count = [0]
            node.tpdo[2].add_callback(lambda pdo: count.__setitem__(0, count[0] + 1))
            time.sleep(0.52)
            expect(6 <= count[0] <= 13, "%d TPDO2 in 0.52 s of a 50 ms timer" % count[0])
            return "%d TPDO2 in 0.52 s" % count[0]
        steps.run("TPDO on the event timer", on_event_timer)

        def rpdo():
            node.rpdo[1]["Target Position"].raw = 123456
            node.rpdo[1].transmit()
            time.sleep(0.05)
            value = node.sdo["Target Position"].raw
            expect(value == 123456, "target position reads %d" % value)
            return "target position 123456 read back by SDO"
        steps.run("RPDO takes effect", rpdo)

        def emcy():
            node.emcy.reset()
            network.send_message(0x201, b"\x06")  # RPDO1 maps 48 bits: too short
            error = logged_emcy(node, 0x8210)
            expect(error is not None, "no EMCY 8210")
            expect(error.register & 0x11 == 0x11, "register 0x%02X" % error.register)
            field = node.sdo[0x1003][1].raw
            expect(field == 0x8210, "1003 sub 1 reads 0x%X" % field)
            node.sdo[0x1003][0].raw = 0
            expect(node.sdo[0x1003][0].raw == 0, "1003 not emptied")
            return "EMCY 8210 register 0x%02X; 1003 holds it, writing 0 empties it" % (
                error.register)
        steps.run("EMCY on an RPDO of the wrong length, and 1003", emcy)

        def sync_with_counter():
            node.emcy.reset()
            network.send_message(0x080, b"\x01")  # a counter, which this drive does not take
            error = logged_emcy(node, 0x8240)
            expect(error is not None, "no EMCY 8240")
            return "EMCY 8240 (unexpected SYNC data length)"
        steps.run("SYNC with a counter", sync_with_counter)

        def guarding():
            answers = []
            network.subscribe(0x701, lambda cob, data, ts: answers.append(data[0]))
            node.sdo["Guard Time"].raw = 100
            node.sdo["Life Time Factor"].raw = 3
            node.nmt.start_node_guarding(0.1)
            time.sleep(0.45)
            node.nmt.stop_node_guarding()
            guarded = [a for a in answers if a & 0x7F == 0x05]
            toggles = [a >> 7 for a in guarded]
            expect(len(guarded) >= 3, "%d guarding answers" % len(guarded))
            expect(all(t != u for t, u in zip(toggles, toggles[1:])), "toggle %s" % toggles)
            node.emcy.reset()
            lost = logged_emcy(node, 0x8130)
            expect(lost is not None, "no EMCY 8130 once guarding stopped")
            node.nmt.start_node_guarding(0.1)
            back = logged_emcy(node, 0x0000)
            node.nmt.stop_node_guarding()
            node.sdo["Life Time Factor"].raw = 0
            expect(back is not None, "no EMCY 0000 when guarding came back")
            return "%d answers, toggle alternating; life guarding lost: EMCY 8130, back: 0000" % (
                len(guarded))
        steps.run("node guarding and life guarding", guarding)

        def heartbeat_consumer():
            node.sdo[0x1016][1].raw = (0x7F << 16) | 200  # node 7F, 200 ms
            beat = network.send_periodic(0x77F, b"\x05", 0.05)
            time.sleep(0.4)
            node.emcy.reset()
            beat.stop()
            lost = logged_emcy(node, 0x8130)
            node.sdo[0x1016][1].raw = 0
            expect(lost is not None, "no EMCY 8130 once node 7F fell silent")
            return "node 7F silent for 200 ms: EMCY 8130"
        steps.run("heartbeat consumer", heartbeat_consumer)

        network.sync.start(0.01)  # TPDO1, the statusword, comes on every SYNC

        def enable():
            node.setup_402_state_machine()
            node.state = "OPERATION ENABLED"
            return "state %s, statusword 0x%04X" % (node.state, node.statusword)
        steps.run("drive profile: operation enabled", enable)

        def homing():
            expect(node.is_op_mode_supported("HOMING"), "6502 says no homing")
            expect(node.homing(timeout=5), "homing did not end")
            position = node.sdo["Position Actual Value"].raw
            expect(position == 0, "position %d after homing" % position)
            return "homed, position 0"
        steps.run("drive profile: homing", homing)

        def move():
            node.op_mode = "PROFILED POSITION"
            node.sdo["Profile Velocity"].raw = 200000
            node.sdo["Target Position"].raw = 50000
            node.rpdo[1]["Target Position"].raw = 50000
            node.controlword = 0x000F  # homing left its start bit set: a new set-point rises
            started = time.monotonic()
            node.controlword = 0x001F  # enable operation, new set-point
            deadline = started + 5
            acknowledged = False
            while time.monotonic() < deadline:
                word = node.sdo["Statusword"].raw
                acknowledged = acknowledged or bool(word & 0x1000)
                if acknowledged and word & 0x0400:
                    break
                time.sleep(0.02)
            node.controlword = 0x000F
            position = node.sdo["Position Actual Value"].raw
            expect(acknowledged, "set-point never acknowledged")
            expect(position == 50000, "position %d, not 50000 (statusword 0x%04X after %.2f s)" % (
                position, word, time.monotonic() - started))
            return "50000 increments in %.2f s, target reached" % (time.monotonic() - started)
        steps.run("drive profile: profile position move", move)
        network.sync.stop()
    finally:
        if network is not None:
            network.disconnect()
        drive.terminate()
        try:
            drive.wait(5)
        except subprocess.TimeoutExpired:
            drive.kill()
    print("%s: %d step(s) failed" % ("FAILED" if steps.failed else "PASSED", steps.failed))
    return 1 if steps.failed else 0


if __name__ == "__main__":
    sys.exit(main())
