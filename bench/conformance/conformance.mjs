// Conformance run: imports EasyList (and EasyList + EasyPrivacy) with the real
// stonewall program, evaluates the compiled content-blocker JSON with WebKit's
// matching rules (implemented below), evaluates the same requests with an
// independent adblock-syntax matcher (@ghostery/adblocker, used only as a black
// box here), and reports where the two disagree and why.
//
// node conformance.mjs --root DIR --lists DIR [--build DIR] [--out DIR]
//                      [--requests N] [--seed N]

import { execFileSync } from 'node:child_process';
import fs from 'node:fs';
import os from 'node:os';
import path from 'node:path';
import { FiltersEngine, Request } from '@ghostery/adblocker';
import { getDomain } from 'tldts';

// ---------------------------------------------------------------- arguments

const args = {};
for (let i = 2; i < process.argv.length; i += 2) args[process.argv[i].replace(/^--/, '')] = process.argv[i + 1];
const root = path.resolve(args.root ?? '.');
const listsDir = path.resolve(root, args.lists ?? 'build/lists');
const buildDir = path.resolve(root, args.build ?? process.env.STONEWALL_BUILD ?? 'build/default');
const outDir = path.resolve(root, args.out ?? 'build/conformance');
const targetRequests = Number(args.requests ?? 10000);
const seed = Number(args.seed ?? 20240611);

const configurations = [
  { name: 'EasyList', lists: ['easylist.txt'] },
  { name: 'EasyList + EasyPrivacy', lists: ['easylist.txt', 'easyprivacy.txt'] },
];

// ---------------------------------------------------------------- helpers

function mulberry32(a) {
  return function () {
    a |= 0; a = (a + 0x6d2b79f5) | 0;
    let t = Math.imul(a ^ (a >>> 15), 1 | a);
    t = (t + Math.imul(t ^ (t >>> 7), 61 | t)) ^ t;
    return ((t ^ (t >>> 14)) >>> 0) / 4294967296;
  };
}
const pick = (rng, arr) => arr[Math.floor(rng() * arr.length)];
function shuffle(rng, arr) {
  const a = arr.slice();
  for (let i = a.length - 1; i > 0; i--) {
    const j = Math.floor(rng() * (i + 1));
    [a[i], a[j]] = [a[j], a[i]];
  }
  return a;
}
function hostOf(url) { try { return new URL(url).hostname; } catch { return ''; } }
function siteOf(host) {
  const d = getDomain(host, { allowPrivateDomains: false });
  if (d) return d;
  const labels = host.split('.');
  return labels.slice(-2).join('.');
}
const normaliseUrl = (u) => { try { return new URL(u).href; } catch { return null; } };
const truncate = (s, n = 160) => (s.length > n ? s.slice(0, n - 1) + '…' : s);

// ---------------------------------------------------------------- filter lines

const TYPE_OPTIONS = {
  script: 'script', image: 'image', stylesheet: 'stylesheet', css: 'stylesheet', object: 'object',
  xmlhttprequest: 'xmlhttprequest', xhr: 'xmlhttprequest', subdocument: 'sub_frame', frame: 'sub_frame',
  ping: 'ping', websocket: 'websocket', document: 'main_frame', doc: 'main_frame', font: 'font',
  media: 'media', other: 'other', popup: 'popup',
};
// Options the import reads (its help text); anything else on a network filter is
// an option the import skips. $object has no WebKit resource type.
const READ_OPTIONS = new Set([...Object.keys(TYPE_OPTIONS).filter((t) => t !== 'object'), 'third-party', '3p',
  'first-party', '1p', 'domain', 'match-case', 'cookie', 'csp']);

function parseFilter(line, list) {
  const raw = line.trim();
  if (!raw || raw.startsWith('!') || raw.startsWith('[')) return null;
  if (/#[@?$%]*#|#@?[$?%]#/.test(raw) && !raw.startsWith('/')) return null; // element hiding and friends
  let body = raw;
  const exception = body.startsWith('@@');
  if (exception) body = body.slice(2);
  let pattern = body;
  let optionText = '';
  const dollar = body.lastIndexOf('$');
  if (dollar >= 0 && /^~?[a-z0-9_-]+(=|,|$)/i.test(body.slice(dollar + 1)) && !body.slice(dollar + 1).includes('/') ||
      dollar >= 0 && /^~?(domain|csp|redirect|removeparam|denyallow|rewrite|header|redirect-rule|from|to)=/i.test(body.slice(dollar + 1))) {
    pattern = body.slice(0, dollar);
    optionText = body.slice(dollar + 1);
  }
  const f = {
    raw, list, exception, pattern, isRegex: pattern.length > 2 && pattern.startsWith('/') && pattern.endsWith('/'),
    types: new Set(), notTypes: new Set(), thirdParty: undefined, domains: [], notDomains: [],
    matchCase: false, other: [], unread: [],
  };
  if (optionText) {
    for (const opt of optionText.split(',')) {
      const neg = opt.startsWith('~');
      const [nameRaw, ...rest] = (neg ? opt.slice(1) : opt).split('=');
      const name = nameRaw.toLowerCase();
      const value = rest.join('=');
      if (TYPE_OPTIONS[name]) (neg ? f.notTypes : f.types).add(TYPE_OPTIONS[name]);
      else if (name === 'third-party' || name === '3p') f.thirdParty = !neg;
      else if (name === 'first-party' || name === '1p') f.thirdParty = neg;
      else if (name === 'domain' || name === 'from') {
        for (const d of value.split('|')) {
          if (d.startsWith('~')) f.notDomains.push(d.slice(1)); else if (d) f.domains.push(d);
        }
      } else if (name === 'match-case') f.matchCase = true;
      else f.other.push(name);
      if (!READ_OPTIONS.has(name)) f.unread.push(name);
      if (name === 'csp' && value !== 'upgrade-insecure-requests') f.unread.push('csp=' + value);
    }
  }
  return f;
}

function readFilters(file, list) {
  const out = [];
  for (const line of fs.readFileSync(file, 'utf8').split('\n')) {
    const f = parseFilter(line, list);
    if (f) out.push(f);
  }
  return out;
}

// The shape of a filter, most telling first: the first tag names a cause.
function filterTags(f) {
  const t = [];
  if (f.isRegex) t.push('regex filter /…/');
  if (f.other.includes('badfilter')) t.push('$badfilter');
  for (const o of ['redirect', 'redirect-rule', 'removeparam', 'denyallow', 'rewrite', 'header', 'important', 'all'])
    if (f.other.includes(o)) t.push('$' + o);
  if (f.unread.some((o) => o.startsWith('csp='))) t.push('$csp (other than upgrade-insecure-requests)');
  if (f.notDomains.length) t.push('$domain with ~exclusions');
  else if (f.domains.length) t.push('$domain= (named pages only)');
  if (f.types.has('main_frame')) t.push('$document');
  if (f.types.has('sub_frame')) t.push('$subdocument');
  if (f.types.has('popup')) t.push('$popup');
  if (f.notTypes.size) t.push('$~type exclusions');
  if (f.thirdParty === true) t.push('$third-party');
  if (f.thirdParty === false) t.push('$~third-party (first-party only)');
  if (f.matchCase) t.push('$match-case');
  if (f.types.size && !t.some((x) => /document|popup/.test(x))) t.push('$' + [...f.types].sort().join(',$'));
  if (!f.isRegex) {
    const p = f.pattern;
    if (p.startsWith('||')) {
      const rest = p.slice(2);
      if (/^[^/^*|?]+\^?\|?$/.test(rest)) t.push(rest.endsWith('^') ? '||host^' : '||host (no separator)');
      else if (rest.includes('*')) t.push('||host with wildcard *');
      else t.push('||host/path');
    } else if (p.startsWith('|')) t.push('|left anchor');
    else if (p.endsWith('^')) t.push('separator ^ at end');
    else if (p.includes('^')) t.push('separator ^ inside');
    else if (p.includes('*')) t.push('wildcard *');
    else if (p.endsWith('|')) t.push('right anchor |');
    else t.push('plain substring');
    if (p.endsWith('|') && !t.includes('right anchor |')) t.push('right anchor |');
  }
  return t;
}
const filterShape = (f) => filterTags(f)[0];

// ---------------------------------------------------------------- corpus

const PAGE_SITES = ['news.example-daily.com', 'www.recipes-sample.org', 'blog.tinyhouse-notes.net',
  'www.citypaper-demo.co.uk', 'forum.gardeners-sample.de', 'shop.kitchenware-demo.com',
  'www.weather-sample.fr', 'video.streaming-demo.tv', 'm.sportsdesk-sample.com', 'www.travelmag-demo.it'];
const CDN_HOSTS = ['static.cdnhost-sample.net', 'img.mediacache-demo.com', 'assets.contentbox-sample.org',
  'cdn.webfiles-demo.io'];
const EXT_BY_TYPE = { script: 'js', image: 'gif', stylesheet: 'css', font: 'woff2', media: 'mp4',
  xmlhttprequest: 'json', sub_frame: 'html', main_frame: 'html', ping: 'php', other: 'bin', object: 'swf',
  websocket: 'ws' };
const GENERIC_TYPES = ['script', 'image', 'xmlhttprequest', 'sub_frame', 'script', 'image'];
const ALL_TYPES = ['script', 'image', 'stylesheet', 'font', 'media', 'xmlhttprequest', 'sub_frame', 'ping', 'other'];

function typeFromUrl(url) {
  const m = /\.([a-z0-9]{2,5})(?:[?#]|$)/i.exec(new URL(url).pathname);
  const ext = m ? m[1].toLowerCase() : '';
  if (ext === 'js') return 'script';
  if (['gif', 'png', 'jpg', 'jpeg', 'webp', 'svg', 'ico'].includes(ext)) return 'image';
  if (ext === 'css') return 'stylesheet';
  if (['woff', 'woff2', 'ttf', 'otf'].includes(ext)) return 'font';
  if (['mp4', 'webm', 'mp3', 'm3u8'].includes(ext)) return 'media';
  if (['html', 'htm', 'php'].includes(ext)) return 'sub_frame';
  return null;
}

function domainToHost(d) {
  if (d.startsWith('/')) return null; // regex domain
  return d.replace(/\.\*$/, '.com').replace(/^\*\./, 'www.');
}

// A URL that the filter's pattern matches (null when none can be made).
function urlFromPattern(f, rng, type) {
  if (f.isRegex) return null;
  let p = f.pattern;
  const fill = () => pick(rng, ['a1', 'x', 'zz9', 'ad', 'v2']);
  let rightAnchor = false;
  if (p.endsWith('|') && !p.endsWith('||')) { rightAnchor = true; p = p.slice(0, -1); }
  const ext = EXT_BY_TYPE[type] ?? 'js';
  const tail = () => {
    if (rightAnchor) return '';
    if (/\^$/.test(f.pattern)) return pick(rng, ['', 'x.' + ext, '?q=1']);
    if (/[/]$/.test(p)) return 'x.' + ext;
    if (/\.$/.test(p)) return ext;
    if (/[=&?]$/.test(p)) return '1';
    if (/[a-z0-9_-]$/i.test(p)) return pick(rng, ['.' + ext, '/x.' + ext, '1.' + ext, '']);
    return '';
  };
  const subst = (s, hostPart) => s.replace(/\*/g, fill).replace(/\^/g, hostPart ? '' : '/');
  let url;
  if (p.startsWith('||')) {
    const rest = p.slice(2);
    const m = /^[^/^?|:]*/.exec(rest);
    let host = m[0].replace(/\*/g, 'x1');
    if (!host || host.endsWith('.')) host += 'com';
    let after = rest.slice(m[0].length);
    if (after.startsWith('^')) after = '/' + after.slice(1);
    else if (after && !after.startsWith('/') && !after.startsWith(':') && !after.startsWith('?')) after = '/' + after;
    after = subst(after, false);
    if (!after) after = '/';
    url = 'https://' + host + after + tail();
  } else if (p.startsWith('|')) {
    url = subst(p.slice(1), false) + tail();
    if (!/^[a-z]+:\/\//i.test(url)) return null;
  } else {
    let body = subst(p, false);
    const host = pick(rng, CDN_HOSTS);
    if (body.includes('://')) url = (body.startsWith(':') ? 'https' : '') + body;
    else if (body.startsWith('/')) url = 'https://' + host + body;
    else if (body.startsWith('.') || body.startsWith('-') || body.startsWith('_')) url = 'https://' + host + '/static/x' + body;
    else if (/^[a-z0-9]/i.test(body) && rng() < 0.3) url = 'https://' + body.replace(/^\/*/, '');
    else url = 'https://' + host + '/static/' + body;
    url += tail();
  }
  return normaliseUrl(url);
}

function typeFor(f, rng, url) {
  const positive = [...f.types].filter((t) => t !== 'popup');
  if (positive.length) return pick(rng, positive);
  if (f.types.has('popup')) return pick(rng, ['main_frame', 'sub_frame']);
  let t = (url && typeFromUrl(url)) || pick(rng, GENERIC_TYPES);
  if (f.notTypes.has(t)) t = ALL_TYPES.find((x) => !f.notTypes.has(x));
  return t;
}

function pageFor(f, rng, url) {
  const host = hostOf(url);
  if (f.domains.length) {
    const d = domainToHost(pick(rng, f.domains));
    if (d) return normaliseUrl('https://' + (rng() < 0.3 ? 'www.' + d : d) + '/article/1.html');
  }
  if (f.thirdParty === false) return normaliseUrl('https://' + host + '/index.html');
  return normaliseUrl('https://' + pick(rng, PAGE_SITES) + '/');
}

function buildCorpus(filters, rng, target) {
  const requests = [];
  const seen = new Set();
  const add = (url, page, type, origin, variant) => {
    if (!url || !page) return;
    if (type === 'main_frame') page = url;
    const key = url + ' ' + page + ' ' + type;
    if (seen.has(key)) return;
    seen.add(key);
    requests.push({ url, page, type, origin: origin ? origin.raw : null, originList: origin?.list, variant });
  };
  const network = filters.filter((f) => !f.other.includes('badfilter'));
  const blocks = shuffle(rng, network.filter((f) => !f.exception));
  const exceptions = shuffle(rng, network.filter((f) => f.exception));
  const withDomains = blocks.filter((f) => f.domains.length || f.notDomains.length);

  const fromFilter = (f, variants) => {
    let type = typeFor(f, rng, null);
    const url = urlFromPattern(f, rng, type);
    if (!url) return;
    if (!f.types.size) type = typeFor(f, rng, url);
    const page = pageFor(f, rng, url);
    add(url, page, type, f, f.exception ? 'exception target' : 'primary');
    if (!variants) return;
    if (f.notDomains.length) {
      const d = domainToHost(pick(rng, f.notDomains));
      if (d) add(url, normaliseUrl('https://' + d + '/page.html'), type, f, 'page on a ~excluded domain');
    }
    if (f.domains.length && rng() < 0.5) add(url, normaliseUrl('https://' + pick(rng, PAGE_SITES) + '/'), type, f, 'page not named by $domain');
    if (f.thirdParty === true && rng() < 0.5) add(url, normaliseUrl('https://' + hostOf(url) + '/'), type, f, 'first-party page');
    if (f.thirdParty === false && rng() < 0.5) add(url, normaliseUrl('https://' + pick(rng, PAGE_SITES) + '/'), type, f, 'third-party page');
    if (f.types.size && rng() < 0.3) {
      const other = ALL_TYPES.find((t) => !f.types.has(t) && t !== type);
      add(url, page, other, f, 'type not named');
    }
    if (f.pattern.startsWith('||') && rng() < 0.25) {
      const u = new URL(url);
      if (rng() < 0.5) { u.hostname = 'cdn.' + u.hostname; add(normaliseUrl(u.href), page, type, f, 'subdomain'); }
      else { u.hostname = 'x' + u.hostname; add(normaliseUrl(u.href), page, type, f, 'lookalike host'); }
    }
  };

  // First-party requests on ordinary sites: these should pass.
  const firstParty = Math.round(target * 0.15);
  const paths = [['/', 'main_frame'], ['/index.html', 'main_frame'], ['/style.css', 'stylesheet'],
    ['/app.js', 'script'], ['/images/logo.png', 'image'], ['/api/articles.json', 'xmlhttprequest'],
    ['/fonts/body.woff2', 'font'], ['/video/intro.mp4', 'media'], ['/static/js/vendor.js', 'script'],
    ['/assets/css/main.css', 'stylesheet'], ['/images/photo-2.jpg', 'image'], ['/comments/frame.html', 'sub_frame']];
  for (let i = 0; requests.length < firstParty && i < firstParty * 4; i++) {
    const site = pick(rng, PAGE_SITES);
    const [p, type] = pick(rng, paths);
    const section = pick(rng, ['', '/news', '/2024/06', '/recipes/soup', '/category/garden']);
    add(normaliseUrl('https://' + site + section + (p === '/' ? '/' : p)), normaliseUrl('https://' + site + section + '/'), type, null, 'first-party site');
  }
  // Exceptions, $domain filters, then blocking filters across the lists.
  const exceptionTarget = requests.length + Math.round(target * 0.12);
  for (const f of exceptions) { if (requests.length >= exceptionTarget) break; fromFilter(f, true); }
  const domainTarget = requests.length + Math.round(target * 0.15);
  for (const f of withDomains) { if (requests.length >= domainTarget) break; fromFilter(f, true); }
  for (const f of blocks) { if (requests.length >= target) break; fromFilter(f, true); }
  return requests;
}

// ---------------------------------------------------------------- WebKit semantics

// Request type -> the WebKit resource-type names that cover it.
const WEBKIT_TYPE = { main_frame: ['document'], sub_frame: ['document'], script: ['script'], image: ['image'],
  stylesheet: ['style-sheet'], font: ['font'], media: ['media'], xmlhttprequest: ['raw', 'fetch'],
  websocket: ['raw', 'websocket'], fetch: ['raw', 'fetch'], ping: ['ping'], other: ['other'],
  object: ['other'], popup: ['popup'] };

// Literal runs that every string matched by the regular expression contains.
function requiredRuns(src) {
  const runs = [];
  let cur = '';
  const flush = () => { if (cur) runs.push(cur); cur = ''; };
  const skipQuantifier = (i, literal) => {
    const q = src[i + 1];
    if (q === '?' || q === '*' || q === '{') {
      if (literal) cur = cur.slice(0, -1);
      flush();
      let j = i + 1;
      if (q === '{') while (j < src.length && src[j] !== '}') j++;
      if (src[j + 1] === '?') j++;
      return j;
    }
    if (q === '+') { flush(); return src[i + 2] === '?' ? i + 2 : i + 1; }
    return i;
  };
  let depth = 0;
  for (let i = 0; i < src.length; i++) {
    const c = src[i];
    if (c === '\\') {
      const n = src[i + 1];
      i++;
      if (/[a-zA-Z0-9]/.test(n)) { flush(); i = skipQuantifier(i, false); } else { cur += n; i = skipQuantifier(i, true); }
    } else if (c === '(' || c === '[') {
      flush();
      let j = i;
      if (c === '[') { j++; if (src[j] === ']') j++; while (j < src.length && src[j] !== ']') { if (src[j] === '\\') j++; j++; } }
      else {
        depth = 0;
        for (; j < src.length; j++) {
          if (src[j] === '\\') { j++; continue; }
          if (src[j] === '[') { j++; while (j < src.length && src[j] !== ']') { if (src[j] === '\\') j++; j++; } continue; }
          if (src[j] === '(') depth++;
          else if (src[j] === ')') { depth--; if (depth === 0) break; }
        }
      }
      i = skipQuantifier(j, false);
    } else if (c === '|') return [];
    else if (c === '^' || c === '$') flush();
    else if (c === '.') { flush(); i = skipQuantifier(i, false); }
    else { cur += c; i = skipQuantifier(i, true); }
  }
  flush();
  return runs.map((r) => r.toLowerCase());
}

function trigrams(s) {
  const out = new Set();
  for (let i = 0; i + 3 <= s.length; i++) out.add(s.slice(i, i + 3));
  return out;
}

class WebKitList {
  constructor(rules) {
    this.rules = [];
    this.invalid = 0;
    for (const r of rules) {
      const t = r.trigger || {};
      const cs = !!t['url-filter-is-case-sensitive'];
      let re = null;
      try { re = new RegExp(t['url-filter'], cs ? '' : 'i'); } catch { this.invalid++; }
      const topCs = !!t['top-url-filter-is-case-sensitive'];
      const res = (list) => (list ? list.map((s) => { try { return new RegExp(s, topCs ? '' : 'i'); } catch { this.invalid++; return /$^/; } }) : null);
      this.rules.push({
        json: r, re, action: r.action?.type,
        types: t['resource-type'] ? new Set(t['resource-type']) : null,
        loadType: t['load-type'] ? new Set(t['load-type']) : null,
        loadContext: t['load-context'] ? new Set(t['load-context']) : null,
        ifTop: res(t['if-top-url']), unlessTop: res(t['unless-top-url']),
        ifFrame: res(t['if-frame-url']), unlessFrame: res(t['unless-frame-url']),
        ifDomain: t['if-domain'] ?? null, unlessDomain: t['unless-domain'] ?? null,
      });
    }
    // Trigram index on a literal every match must contain.
    const lits = this.rules.map((r) => requiredRuns(r.json.trigger?.['url-filter'] ?? ''));
    const freq = new Map();
    const grams = lits.map((runs) => { const g = new Set(); for (const run of runs) for (const x of trigrams(run)) g.add(x); return g; });
    for (const g of grams) for (const x of g) freq.set(x, (freq.get(x) ?? 0) + 1);
    this.index = new Map();
    this.unindexed = [];
    grams.forEach((g, i) => {
      let best = null;
      for (const x of g) if (best === null || freq.get(x) < freq.get(best)) best = x;
      if (best === null) this.unindexed.push(i);
      else { if (!this.index.has(best)) this.index.set(best, []); this.index.get(best).push(i); }
    });
  }

  candidates(url) {
    const set = new Set(this.unindexed);
    for (const g of trigrams(url.toLowerCase())) { const b = this.index.get(g); if (b) for (const i of b) set.add(i); }
    return [...set].sort((a, b) => a - b);
  }

  static domainMatches(list, host) {
    return list.some((d) => (d.startsWith('*') ? host === d.slice(1) || host.endsWith('.' + d.slice(1).replace(/^\./, '')) || host === d.slice(1).replace(/^\./, '') : host === d));
  }

  // Returns the names of the trigger conditions the request fails (empty: it fires).
  failures(i, req) {
    const r = this.rules[i];
    const fails = [];
    if (!r.re || !r.re.test(req.url)) fails.push('url-filter');
    if (r.types && !WEBKIT_TYPE[req.type].some((t) => r.types.has(t))) fails.push('resource-type');
    if (r.loadType && !r.loadType.has(req.thirdParty ? 'third-party' : 'first-party')) fails.push('load-type');
    if (r.loadContext && !r.loadContext.has(req.type === 'sub_frame' ? 'child-frame' : 'top-frame')) fails.push('load-context');
    if (r.ifTop && !r.ifTop.some((x) => x.test(req.page))) fails.push('if-top-url');
    if (r.unlessTop && r.unlessTop.some((x) => x.test(req.page))) fails.push('unless-top-url');
    if (r.ifFrame && !r.ifFrame.some((x) => x.test(req.page))) fails.push('if-frame-url');
    if (r.unlessFrame && r.unlessFrame.some((x) => x.test(req.page))) fails.push('unless-frame-url');
    const topHost = hostOf(req.page);
    if (r.ifDomain && !WebKitList.domainMatches(r.ifDomain, topHost)) fails.push('if-domain');
    if (r.unlessDomain && WebKitList.domainMatches(r.unlessDomain, topHost)) fails.push('unless-domain');
    return fails;
  }

  // Actions in list order; ignore-previous-rules drops all earlier ones.
  evaluate(req) {
    let blockedBy = -1;
    let ignoredBy = -1;
    for (const i of this.candidates(req.url)) {
      const r = this.rules[i];
      if (r.action !== 'block' && r.action !== 'ignore-previous-rules') continue;
      if (!r.re || !r.re.test(req.url)) continue;
      if (this.failures(i, req).length) continue;
      if (r.action === 'ignore-previous-rules') { blockedBy = -1; ignoredBy = i; } else blockedBy = i;
    }
    return { blocked: blockedBy >= 0, blockedBy, ignoredBy };
  }
}

// Finds the compiled rules a filter became: same action, and the same literal
// words in the same order (the literal runs every match of the url-filter
// must contain, against the filter's pattern less its wildcards, separators
// and anchors). How the converter spells separators and anchors does not
// matter; a rule made from a longer or shorter pattern does not count.
const signature = (runs) => runs.filter((r) => /[a-z0-9]/i.test(r)).join(' ').toLowerCase();
function filterSignature(f) {
  if (f.isRegex) return signature(requiredRuns(f.pattern.slice(1, -1)));
  return signature(f.pattern.split(/[*^|]+/));
}
const ruleSignature = (r) => r.action + ' ' + signature(requiredRuns(r.json.trigger?.['url-filter'] ?? ''));
const filterKey = (f) => (f.exception ? 'ignore-previous-rules' : 'block') + ' ' + filterSignature(f);

class ConvertedLookup {
  constructor(list, filters) {
    this.list = list;
    this.bySignature = new Map();
    list.rules.forEach((r, i) => {
      const key = ruleSignature(r);
      if (!this.bySignature.has(key)) this.bySignature.set(key, []);
      this.bySignature.get(key).push(i);
    });
    this.filtersBySignature = new Map();
    for (const f of filters) {
      const key = filterKey(f);
      if (!this.filtersBySignature.has(key)) this.filtersBySignature.set(key, []);
      this.filtersBySignature.get(key).push(f);
    }
  }

  // A rule whose resource types share none with the filter's did not come from it.
  static typesFit(f, rule) {
    const wanted = new Set([...f.types].flatMap((t) => WEBKIT_TYPE[t] ?? []));
    if (!wanted.size || !rule.types) return true;
    return [...rule.types].some((t) => wanted.has(t));
  }

  find(f) {
    return (this.bySignature.get(filterKey(f)) ?? []).filter((i) => ConvertedLookup.typesFit(f, this.list.rules[i]));
  }

  // The list filters a compiled rule most likely came from.
  sources(i) {
    const rule = this.list.rules[i];
    return (this.filtersBySignature.get(ruleSignature(rule)) ?? []).filter((f) => ConvertedLookup.typesFit(f, rule));
  }
}

// ---------------------------------------------------------------- run

function runProgram(config) {
  const container = fs.mkdtempSync(path.join(os.tmpdir(), 'stonewall-conformance-'));
  const exe = path.join(buildDir, 'tools/stonewall/stonewall');
  const env = { ...process.env, STONEWALL_RESOURCES: path.join(buildDir, 'resources') };
  const summaries = [];
  for (const list of config.lists) {
    const out = execFileSync(exe, ['--container', container, 'profile', 'import', 'defaultProfile', path.join(listsDir, list), '--json'],
      { env, encoding: 'utf8', maxBuffer: 64 << 20, stdio: ['ignore', 'pipe', 'pipe'] });
    summaries.push({ list, ...JSON.parse(out.trim().split('\n').pop()) });
  }
  const ruleFile = path.join(container, '.Profiles/profile_defaultProfile_unarchive.json');
  const rules = JSON.parse(fs.readFileSync(ruleFile, 'utf8'));
  fs.rmSync(container, { recursive: true, force: true });
  return { summaries, rules };
}

const IMPORT_SKIPS_OPTION = (f) => f.unread.length > 0;

function evaluateConfiguration(config, allFilters) {
  const t0 = Date.now();
  const { summaries, rules } = runProgram(config);
  const tImport = Date.now() - t0;
  const filters = allFilters.filter((f) => config.lists.includes(f.list));
  const rng = mulberry32(seed + config.lists.length);
  const corpus = buildCorpus(filters, rng, targetRequests);
  const text = config.lists.map((l) => fs.readFileSync(path.join(listsDir, l), 'utf8')).join('\n');
  const engine = FiltersEngine.parse(text, { loadCosmeticFilters: false, loadNetworkFilters: true, debug: true });
  const webkit = new WebKitList(rules);
  const lookup = new ConvertedLookup(webkit, filters);
  const capHit = summaries.some((s) => s.rulesWritten !== undefined && s.rulesWritten < (s.rulesByKind?.block ?? 0) + (s.rulesByKind?.exception ?? 0));
  const byRaw = new Map(filters.map((f) => [f.raw, f]));
  const asFilter = (raw) => byRaw.get(raw) ?? parseFilter(raw, '?');

  const cells = { bothBlock: 0, bothPass: 0, missed: 0, overBlocked: 0 };
  const fit = { bothBlock: 0, bothPass: 0, missed: 0, overBlocked: 0 };
  const causes = new Map();
  const noteCause = (key, example, fits) => {
    if (!causes.has(key)) causes.set(key, { cause: key, count: 0, fits, example });
    causes.get(key).count++;
  };
  const tEval = Date.now();
  for (const req of corpus) {
    req.thirdParty = siteOf(hostOf(req.url)) !== siteOf(hostOf(req.page));
    const ours = webkit.evaluate(req);
    const m = engine.match(Request.fromRawDetails({ url: req.url, sourceUrl: req.page, type: req.type }));
    const theirs = !!m.match;
    const matcherFilter = m.filter ? (m.filter.rawLine ?? m.filter.toString()) : null;
    const matcherException = m.exception ? (m.exception.rawLine ?? m.exception.toString()) : null;
    const reqText = `${req.type} ${req.url} on ${req.page}`;
    let fits = true;
    if (ours.blocked && theirs) cells.bothBlock++;
    else if (!ours.blocked && !theirs) cells.bothPass++;
    else if (theirs) {
      cells.missed++;
      const f = asFilter(matcherFilter);
      const converted = lookup.find(f);
      let status;
      let rule = null;
      if (!converted.length) {
        fits = false;
        status = f.isRegex || IMPORT_SKIPS_OPTION(f) ? 'not in compiled list (skipped by the import)'
          : capHit ? 'not in compiled list (left out: rule cap or import budget)' : 'not in compiled list';
      } else {
        let best = null;
        for (const i of converted) {
          const fl = webkit.failures(i, req);
          if (!best || fl.length < best.fl.length) best = { i, fl };
        }
        rule = webkit.rules[best.i].json;
        status = best.fl.length ? `converted, but its ${best.fl.join(' and ')} does not fire`
          : ours.ignoredBy >= 0 ? 'converted, but a later ignore-previous-rules cancels it' : 'converted, fires, still passes';
        if (ours.ignoredBy >= 0 && !best.fl.length) rule = webkit.rules[ours.ignoredBy].json;
      }
      noteCause(`missed: ${filterShape(f)} · ${status}`, { request: reqText, filter: matcherFilter, rule, variant: req.variant }, fits);
    } else {
      cells.overBlocked++;
      const ourRule = webkit.rules[ours.blockedBy].json;
      let key;
      let filter = req.origin;
      if (matcherException) {
        const ex = asFilter(matcherException);
        const converted = lookup.find(ex);
        filter = matcherException;
        if (!converted.length) {
          fits = false;
          key = `over-blocked: exception ${filterShape(ex)} · ${ex.isRegex || IMPORT_SKIPS_OPTION(ex) ? 'skipped by the import' : capHit ? 'not in compiled list (left out: rule cap or import budget)' : 'not in compiled list'}`;
        } else {
          const fl = webkit.failures(converted[0], req);
          key = `over-blocked: exception ${filterShape(ex)} · converted, but ${fl.length ? `its ${fl.join(' and ')} does not fire` : 'comes before the blocking rule'}`;
        }
      } else {
        // Name the list filter our blocking rule came from (the request's own
        // filter when it is one of them).
        const sources = lookup.sources(ours.blockedBy);
        const source = sources.find((f) => f.raw === req.origin) ?? sources[0] ?? null;
        filter = source ? source.raw : req.origin;
        key = `over-blocked: matcher has no filter · ${source ? filterShape(source) : 'rule of unknown origin'} · ${req.variant}`;
      }
      noteCause(key, { request: reqText, filter, rule: ourRule, variant: req.variant }, fits);
    }
    if (fits) {
      if (ours.blocked && theirs) fit.bothBlock++;
      else if (!ours.blocked && !theirs) fit.bothPass++;
      else if (theirs) fit.missed++;
      else fit.overBlocked++;
    }
  }
  const network = filters.filter((f) => !f.other.includes('badfilter'));
  const networkFound = network.filter((f) => lookup.find(f).length > 0).length;
  const total = corpus.length;
  const fitTotal = fit.bothBlock + fit.bothPass + fit.missed + fit.overBlocked;
  const variants = {};
  for (const r of corpus) variants[r.variant] = (variants[r.variant] ?? 0) + 1;
  return {
    configuration: config.name,
    lists: config.lists,
    import: summaries.map((s) => ({ list: s.list, lines: s.lines, added: s.added, rulesByKind: s.rulesByKind, skipped: s.skipped, rulesWritten: s.rulesWritten })),
    compiledRules: rules.length,
    networkFilters: network.length,
    networkFiltersInCompiledList: networkFound,
    compiledRulesByAction: rules.reduce((a, r) => { a[r.action?.type] = (a[r.action?.type] ?? 0) + 1; return a; }, {}),
    invalidRegexes: webkit.invalid,
    capHit,
    requests: total,
    requestsByVariant: variants,
    cells,
    agreement: (cells.bothBlock + cells.bothPass) / total,
    fit: { ...fit, requests: fitTotal, agreement: (fit.bothBlock + fit.bothPass) / fitTotal },
    causes: [...causes.values()].sort((a, b) => b.count - a.count),
    milliseconds: { import: tImport, evaluate: Date.now() - tEval },
  };
}

function report(results) {
  const pct = (x) => (100 * x).toFixed(2) + '%';
  const lines = [];
  for (const r of results) {
    lines.push(`== ${r.configuration} ==`);
    for (const s of r.import) lines.push(`import ${s.list}: ${s.lines} lines, ${s.added} added, rules by kind ${JSON.stringify(s.rulesByKind)}, skipped ${JSON.stringify(s.skipped)}, ${s.rulesWritten} rules written`);
    lines.push(`compiled list: ${r.compiledRules} rules ${JSON.stringify(r.compiledRulesByAction)}${r.capHit ? ' (cut by the rule cap)' : ''}${r.invalidRegexes ? `, ${r.invalidRegexes} regexes JS could not compile` : ''}`);
    lines.push(`network filters found in the compiled list: ${r.networkFiltersInCompiledList} of ${r.networkFilters}`);
    lines.push(`requests: ${r.requests} ${JSON.stringify(r.requestsByVariant)}`);
    const c = r.cells;
    lines.push(`both block ${c.bothBlock} | both pass ${c.bothPass} | missed (matcher blocks, we pass) ${c.missed} | over-blocked (we block, matcher passes) ${c.overBlocked}`);
    lines.push(`agreement overall: ${pct(r.agreement)} of ${r.requests}`);
    const f = r.fit;
    lines.push(`agreement on the rules that fit: ${pct(f.agreement)} of ${f.requests} (leaves out ${r.requests - f.requests} requests whose matcher-side filter is not in the compiled list: cut by the cap or skipped by the import; there: missed ${f.missed}, over-blocked ${f.overBlocked})`);
    lines.push('most common causes of disagreement:');
    const show = (x, i) => {
      lines.push(`${String(i + 1).padStart(2)}. ${x.count}  ${x.cause}`);
      lines.push(`      request: ${truncate(x.example.request, 200)}`);
      if (x.example.filter) lines.push(`      filter:  ${truncate(x.example.filter, 200)}`);
      if (x.example.rule) lines.push(`      rule:    ${truncate(JSON.stringify(x.example.rule), 240)}`);
    };
    r.causes.slice(0, 10).forEach(show);
    const fitting = r.causes.filter((x) => x.fits);
    lines.push(`causes among the rules that fit (the filter is in the compiled list): ${fitting.length}`);
    fitting.slice(0, 10).forEach(show);
    lines.push(`(${r.causes.length} causes in all; import ${r.milliseconds.import} ms, evaluation ${r.milliseconds.evaluate} ms)`);
    lines.push('');
  }
  return lines.join('\n');
}

const allFilters = [];
for (const list of new Set(configurations.flatMap((c) => c.lists))) allFilters.push(...readFilters(path.join(listsDir, list), list));
const results = configurations.map((c) => evaluateConfiguration(c, allFilters));
const text = report(results);
process.stdout.write(text);
fs.mkdirSync(outDir, { recursive: true });
fs.writeFileSync(path.join(outDir, 'report.txt'), text);
fs.writeFileSync(path.join(outDir, 'report.json'), JSON.stringify({ seed, build: buildDir, results }, null, 2));
process.stdout.write(`report written to ${path.relative(process.cwd(), path.join(outDir, 'report.txt'))} and report.json\n`);
