// Asks the agent. Addresses are relative to the page's, so that it works behind a proxy too.

const TIMEOUT_MS = 5000;
const known = new Map();  // address -> {etag, body}, of the polled ones

async function request(address, headers = {}) {
  const answer = await fetch(address, {
    headers, cache: 'no-store', credentials: 'same-origin', signal: AbortSignal.timeout(TIMEOUT_MS),
  });
  if (!answer.ok && answer.status !== 304) throw new Error(`the agent answers ${answer.status}`);
  return answer;
}

export function address(path, parameters = []) {
  const query = new URLSearchParams(parameters).toString();
  return query === '' ? `api/${path}` : `api/${path}?${query}`;
}

export async function get(path, parameters) {
  return (await request(address(path, parameters))).json();
}

// For one that is asked again and again: {body, fresh}. Nothing is sent that has not changed.
export async function poll(path) {
  const before = known.get(path);
  const answer = await request(address(path), before ? {'If-None-Match': before.etag} : {});
  if (answer.status === 304) return {body: before.body, fresh: false};
  const body = await answer.json();
  const etag = answer.headers.get('ETag');
  if (etag !== null) known.set(path, {etag, body});
  return {body, fresh: true};
}
