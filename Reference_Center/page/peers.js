// The peers as the page shows them: those that the Center names, and for a while those that it no longer names.

import * as format from "./format.js";

const red_ms = 6000;
const fade_ms = 2000;

export class peer_list {
    constructor() {
        this.forget();
    }

    forget() {
        this.present = new Map();
        this.gone = new Map();
        this.reasons = new Map();
        this.order = new Map(); // by first sight, so that nobody moves in the drawing for no reason
        this.seen = 0;
    }

    /// Takes what the Center that was started then named at that time; true when a peer came, left or changed its state.
    take(named, started, now) {
        if (started !== this.started) {
            this.forget();
            this.started = started;
        }
        const before = this.present;
        this.present = new Map(named.map((peer) => [key_of(peer), {...peer, key: key_of(peer), shown: peer.state}]));
        let changed = before.size === 0;
        for (const [key, peer] of before) {
            const after = this.present.get(key);
            changed ||= after?.state !== peer.state;
            if (after === undefined) {
                this.gone.set(key, {...peer, shown: "gone", left: now});
            }
        }
        for (const key of this.present.keys()) {
            changed ||= !before.has(key);
            this.gone.delete(key);
        }
        this.drop_faded(now);
        return changed;
    }

    drop_faded(now) {
        for (const [key, peer] of this.gone) {
            if (now - peer.left > red_ms + fade_ms) {
                this.gone.delete(key);
            }
        }
        for (const key of this.order.keys()) {
            if (!this.present.has(key) && !this.gone.has(key)) {
                this.order.delete(key);
            }
        }
    }

    /// The reasons of closed connections, newest first; the newest of each peer is its reason.
    explain(closed) {
        this.reasons = new Map(closed.toReversed().map((one) => [key_of(one), one.reason]));
    }

    /// Outgoing ones first, each way in the order of first sight.
    shown(now) {
        const all = [...this.present.values(), ...this.gone.values()];
        for (const peer of all) {
            if (!this.order.has(peer.key)) {
                this.order.set(peer.key, this.seen++);
            }
            peer.fades = peer.shown === "gone" && now - peer.left > red_ms;
            peer.reason = peer.shown === "established" ? undefined : this.reasons.get(peer.key);
        }
        return all.sort((left, right) =>
            (left.over === right.over ? 0 : left.over === "outgoing" ? -1 : 1) ||
            this.order.get(left.key) - this.order.get(right.key));
    }
}

/// The state of a peer that is shown, with the reason of its last end where that is known.
export function state_text(peer) {
    return peer.reason === undefined ? peer.shown : `${peer.shown}: ${format.reason(peer.reason)}`;
}

function key_of(peer) {
    return `${peer.over} ${peer.address}`;
}
