'use strict';
// One loopback S3 server for the cloud tests: s3rver, made stricter where
// it accepts what S3 refuses (see the guards below).
//
//   node --openssl-legacy-provider server.js --port N --dir DIR
//        [--https KEYFILE CERTFILE] [--lifetime SECONDS]
//        [--bucket NAME]... [NAME]...
//
// Port 0 picks a free port. Prints "READY <port>" on stdout once the
// server has answered a request of its own; requests are logged to stderr.
// --lifetime makes a server that nobody stopped (a killed test run) go
// away by itself.

const crypto = require('crypto');
const fs = require('fs');
const http = require('http');
const https = require('https');
const path = require('path');
const { Readable } = require('stream');

function die(msg) {
  process.stderr.write(`server.js: ${msg}\n`);
  process.exit(2);
}

function parseArgs(argv) {
  const opts = { port: null, dir: null, key: null, cert: null, lifetime: 0, buckets: [] };
  for (let i = 0; i < argv.length; i++) {
    const a = argv[i];
    const need = (n) => {
      if (i + n >= argv.length) die(`${a} needs ${n} argument(s)`);
      const v = argv.slice(i + 1, i + 1 + n);
      i += n;
      return v;
    };
    if (a === '--port') opts.port = need(1)[0];
    else if (a === '--dir') opts.dir = need(1)[0];
    else if (a === '--https') [opts.key, opts.cert] = need(2);
    else if (a === '--bucket') opts.buckets.push(need(1)[0]);
    else if (a === '--lifetime') opts.lifetime = Number(need(1)[0]);
    else if (a.startsWith('--')) die(`unknown option ${a}`);
    else opts.buckets.push(a);
  }
  if (opts.port === null || !/^\d+$/.test(opts.port) || Number(opts.port) > 65535) {
    die('--port N is required (0 picks a free port)');
  }
  if (!opts.dir) die('--dir DIR is required');
  if (!(opts.lifetime >= 0)) die('--lifetime needs a number of seconds');
  for (const b of opts.buckets) {
    // s3rver stores a bucket as a directory: keep names to what S3 accepts.
    if (!/^[a-z0-9][a-z0-9.-]{1,61}[a-z0-9]$/.test(b)) die(`bad bucket name "${b}"`);
  }
  return opts;
}

// Listing v2 continuation tokens are DES-encrypted by s3rver; OpenSSL 3
// only has DES in the legacy provider, and without it pagination fails
// with a 500 in the middle of a test rather than here.
function checkLegacyCipher() {
  try {
    crypto.createCipheriv('des', Buffer.alloc(8), Buffer.alloc(8));
  } catch (e) {
    die('DES is unavailable; run node with --openssl-legacy-provider');
  }
}

function selfRequest(port, tls) {
  return new Promise((resolve, reject) => {
    const mod = tls ? https : http;
    const req = mod.request(
      {
        host: '127.0.0.1',
        port,
        path: '/',
        method: 'GET',
        // The wrong-name server's certificate would not verify by design.
        rejectUnauthorized: false,
        timeout: 5000,
      },
      (res) => {
        res.resume();
        res.on('end', () => resolve(res.statusCode));
      },
    );
    req.on('timeout', () => req.destroy(new Error('self-request timed out')));
    req.on('error', reject);
    req.end();
  });
}

// s3rver trusts the part list of a completion: a part that was never
// uploaded crashes the whole process (an unhandled stream error), and parts
// sent to an unknown upload id are stored anyway. Answer those as S3 does,
// so that one bad request cannot take down a server that many tests share.
function guardMultipart(store) {
  const S3Error = require('@20minutes/s3rver/lib/models/error');
  const uploadDir = (bucket, id) =>
    path.join(store.getResourcePath(bucket, undefined, 'uploads'), id);
  const check = (bucket, id) => {
    // The id check also keeps "../" out of the paths below.
    if (!/^[0-9a-f]{32}$/.test(String(id)) || !fs.existsSync(path.join(uploadDir(bucket, id), 'key'))) {
      throw new S3Error(
        'NoSuchUpload',
        'The specified upload does not exist. The upload ID may be invalid, or the upload may have been aborted or completed.',
        { UploadId: id },
      );
    }
  };
  const putPart = store.putPart.bind(store);
  store.putPart = async (bucket, uploadId, partNumber, content) => {
    check(bucket, uploadId);
    return putPart(bucket, uploadId, partNumber, content);
  };
  const complete = store.putObjectMultipart.bind(store);
  store.putObjectMultipart = async (bucket, uploadId, parts) => {
    check(bucket, uploadId);
    parts.forEach((part, i) => {
      if (!(part.number >= 1 && (i === 0 || part.number > parts[i - 1].number))) {
        throw new S3Error(
          'InvalidPartOrder',
          'The list of parts was not in ascending order. The parts list must be specified in order by part number.',
          { UploadId: uploadId },
        );
      }
    });
    for (const part of parts) {
      let md5 = null;
      try {
        md5 = fs.readFileSync(path.join(uploadDir(bucket, uploadId), `${part.number}.md5`), 'utf8');
      } catch (e) {
        if (e.code !== 'ENOENT') throw e;
      }
      // s3rver's XML parser leaves entities alone, and some clients write
      // the quotes around an ETag as &#34;.
      const etag = part.etag.replace(/&#34;|&#x22;|&quot;/gi, '');
      if (md5 !== etag) {
        throw new S3Error(
          'InvalidPart',
          "One or more of the specified parts could not be found. The part may not have been uploaded, or the specified entity tag may not match the part's entity tag.",
          { UploadId: uploadId, PartNumber: part.number, ETag: part.etag },
        );
      }
    }
    return complete(bucket, uploadId, parts);
  };
}

// s3rver lists keys in the order its directory walk finds them, so "a/x"
// comes before "a-" and "a", and a listing continued after "a/x" loses
// those. List everything under the prefix, then page in UTF-8 byte order
// as S3 does. (Common prefixes still do not count towards max-keys.)
function sortedListing(store) {
  const list = store.listObjects.bind(store);
  const bytes = (s) => Buffer.from(s, 'utf8');
  const byKey = (a, b) => Buffer.compare(bytes(a), bytes(b));
  store.listObjects = async (bucket, options) => {
    const { delimiter = '', startAfter = '', prefix = '', maxKeys = Infinity } = options;
    const { objects } = await list(bucket, { prefix });
    const after = bytes(startAfter);
    const sorted = objects
      .filter((o) => Buffer.compare(bytes(o.key), after) > 0)
      .sort((a, b) => byKey(a.key, b.key));
    const page = [];
    const commonPrefixes = new Set();
    // Prefixes met once the page is full belong to this page only if no key
    // follows; otherwise the next page, which starts after our last key.
    const pending = new Set();
    let isTruncated = false;
    for (const o of sorted) {
      const at = delimiter ? o.key.indexOf(delimiter, prefix.length) : -1;
      if (at !== -1) {
        (page.length < maxKeys ? commonPrefixes : pending).add(o.key.slice(0, at + delimiter.length));
      } else if (page.length < maxKeys) {
        page.push(o);
      } else {
        isTruncated = true;
        break;
      }
    }
    if (!isTruncated) pending.forEach((p) => commonPrefixes.add(p));
    return { objects: page, commonPrefixes: [...commonPrefixes].sort(byKey), isTruncated };
  };
}

// s3rver serves unsigned requests as if signed, and stores bodies without
// comparing them with x-amz-content-sha256 or Content-MD5. S3 refuses all
// three, and a client that got them wrong must fail here as it would there.
// Bodies that carry a digest are read whole, checked, then handed on.
function strictRequests(s3) {
  const S3Error = require('@20minutes/s3rver/lib/models/error');
  const maxBody = 1024 * 1024 * 1024;
  const readAll = (req) =>
    new Promise((resolve, reject) => {
      const chunks = [];
      let size = 0;
      req.on('data', (c) => {
        size += c.length;
        if (size > maxBody) {
          req.destroy();
          reject(new S3Error('EntityTooLarge', 'Your proposed upload exceeds the maximum allowed size'));
        } else {
          chunks.push(c);
        }
      });
      req.on('end', () => resolve(Buffer.concat(chunks)));
      req.on('error', reject);
    });

  s3.middleware.unshift(async (ctx, next) => {
    const h = ctx.headers;
    const q = ctx.query;
    if (!('authorization' in h) && !('X-Amz-Algorithm' in q) && !('Signature' in q)) {
      throw new S3Error('AccessDenied', 'Access Denied');
    }
    const sha = h['x-amz-content-sha256'];
    const hexSha = /^[0-9a-fA-F]{64}$/.test(sha || '');
    const streaming = /^STREAMING-/.test(sha || '');
    const md5 = streaming ? undefined : h['content-md5'];
    if (!hexSha && md5 === undefined) return next();

    const body = await readAll(ctx.req);
    if (hexSha) {
      const got = crypto.createHash('sha256').update(body).digest('hex');
      if (got !== sha.toLowerCase()) {
        const e = new S3Error(
          'XAmzContentSHA256Mismatch',
          "The provided 'x-amz-content-sha256' header does not match what was computed.",
          { ClientComputedContentSHA256: sha, S3ComputedContentSHA256: got },
        );
        e.status = 400;
        e.expose = true;
        throw e;
      }
    }
    if (md5 !== undefined) {
      const want = Buffer.from(md5, 'base64');
      if (want.length !== 16 || want.toString('base64') !== md5) {
        throw new S3Error('InvalidDigest', 'The Content-MD5 you specified is not valid.', { 'Content-MD5': md5 });
      }
      if (!crypto.createHash('md5').update(body).digest().equals(want)) {
        throw new S3Error('BadDigest', 'The Content-MD5 you specified did not match what we received.', {
          ExpectedDigest: md5,
        });
      }
    }
    const replay = Readable.from(body.length ? [body] : [], { objectMode: false });
    for (const k of ['headers', 'rawHeaders', 'method', 'url', 'socket', 'connection',
                     'httpVersion', 'httpVersionMajor', 'httpVersionMinor', 'baseUrl']) {
      replay[k] = ctx.req[k];
    }
    ctx.req = ctx.request.req = replay;
    return next();
  });
}

async function main() {
  const opts = parseArgs(process.argv.slice(2));
  checkLegacyCipher();
  fs.mkdirSync(opts.dir, { recursive: true });

  const S3rver = require('@20minutes/s3rver');
  const config = {
    port: Number(opts.port),
    address: '127.0.0.1',
    directory: path.resolve(opts.dir),
    silent: true,
    configureBuckets: opts.buckets.map((name) => ({ name })),
  };
  if (opts.key) {
    config.key = fs.readFileSync(opts.key, 'utf8');
    config.cert = fs.readFileSync(opts.cert, 'utf8');
  }

  const s3 = new S3rver(config);
  guardMultipart(s3.store);
  sortedListing(s3.store);
  strictRequests(s3);
  await s3.configureBuckets();
  // Listening is done here rather than by s3rver's run(), whose promise
  // never settles when the port is taken.
  const handler = s3.callback();
  const httpServer = config.key
    ? https.createServer({ key: config.key, cert: config.cert }, handler)
    : http.createServer(handler);
  try {
    await new Promise((resolve, reject) => {
      httpServer.once('error', reject);
      httpServer.listen(config.port, config.address, resolve);
    });
  } catch (e) {
    const why = e.code === 'EADDRINUSE' ? `port ${opts.port} is already in use` : e.message;
    die(`cannot listen on 127.0.0.1:${opts.port}: ${why}`);
  }
  const address = httpServer.address();

  const started = Date.now();
  httpServer.on('request', (req, res) => {
    res.on('finish', () => {
      const ms = ((Date.now() - started) / 1000).toFixed(3);
      process.stderr.write(`${ms} ${req.method} ${req.url} ${res.statusCode}\n`);
    });
  });

  // Whatever else s3rver leaves unhandled: keep serving the other tests.
  process.on('uncaughtException', (e) => {
    process.stderr.write(`server.js: unhandled error, a request may be left hanging: ${e.stack || e}\n`);
  });

  let stopping = false;
  const stop = (sig) => {
    if (stopping) return;
    stopping = true;
    process.stderr.write(`server.js: ${sig}, stopping\n`);
    // Idle keep-alive connections would otherwise hold close() open.
    httpServer.closeAllConnections();
    httpServer.close(() => process.exit(0));
    setTimeout(() => process.exit(0), 2000).unref();
  };
  process.on('SIGTERM', () => stop('SIGTERM'));
  process.on('SIGINT', () => stop('SIGINT'));
  if (opts.lifetime > 0) {
    setTimeout(() => stop('lifetime over'), opts.lifetime * 1000).unref();
  }

  try {
    await selfRequest(address.port, Boolean(opts.key));
  } catch (e) {
    die(`listening on ${address.port} but not answering: ${e.message}`);
  }
  process.stdout.write(`READY ${address.port}\n`);
}

main().catch((e) => die(e.stack || String(e)));
