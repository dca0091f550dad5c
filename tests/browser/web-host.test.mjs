// The web face of tideway-host in headless Chromium, against tideway-agent-sim: the page shows
// the live module, and each thing the person does reaches the agent as the right message.
//   node web-host.test.mjs <url> <agent log> <artefact dir>
// What the agent received is read from its log ("RECV session=N ..."); session numbers change
// after a drop, so the patterns leave them open.
import {chromium} from 'playwright-core';
import {readFileSync} from 'node:fs';
import {setTimeout as sleep} from 'node:timers/promises';
import assert from 'node:assert/strict';

const [url, agentLog, artefacts] = process.argv.slice(2);
const TIMEOUT = 30000;
const started = Date.now();
const step = (text) => console.log(`[${((Date.now() - started) / 1000).toFixed(1)}s] ${text}`);

// Lines of the agent's log matching `pattern`.
const agentLines = (pattern) => readFileSync(agentLog, 'utf8').split('\n').filter((l) => pattern.test(l));

// Polls the agent's log until `count` lines match; returns them.
async function agentReceived(pattern, count = 1) {
  for (const deadline = Date.now() + TIMEOUT; Date.now() < deadline; await sleep(100)) {
    const lines = agentLines(pattern);
    if (lines.length >= count) return lines;
  }
  throw new Error(`the agent did not receive ${count} x ${pattern}`);
}

const browser = await chromium.launch({
  executablePath: process.env.CHROMIUM || '/usr/bin/chromium',
  args: ['--no-sandbox', '--disable-dev-shm-usage'],
});
const problems = [];  // errors the page itself reported
try {
  const page = await browser.newPage({viewport: {width: 1280, height: 900}});
  page.setDefaultTimeout(TIMEOUT);
  page.on('pageerror', (e) => problems.push(`page error: ${e.message}`));
  page.on('console', (m) => { if (m.type() === 'error') problems.push(`console: ${m.text()}`); });

  const ctl = (id) => page.locator(`[data-ctl="${id}"]`);
  const text = (id) => ctl(id).textContent();
  const waitFor = (fn, arg) => page.waitForFunction(fn, arg, {timeout: TIMEOUT});
  const tileShows = (tower) => waitFor((t) =>
      document.getElementById('tray').dataset.state === 'Good' &&
      document.querySelector('[data-ctl="simple_status"]').textContent.endsWith(`(${t})`), tower);
  // Sends a line through the agent panel's free field and waits for the simulator's reply.
  const control = async (line) => {
    const replies = await page.locator('#agent-log li.reply').count();
    await page.fill('input[name="line"]', line);
    await page.locator('form[data-template="{line}"] button').click();
    await waitFor((n) => document.querySelectorAll('#agent-log li.reply').length > n, replies);
  };

  await page.goto(url);
  // Every change of the tray state, in order, so that a short "Error" is not missed.
  await page.evaluate(() => {
    window.trayStates = [];
    new MutationObserver(() => window.trayStates.push(document.getElementById('tray').dataset.state))
        .observe(document.getElementById('tray'), {attributes: true, attributeFilter: ['data-state']});
  });

  step('connected: tray Good, tile with the active tower, statistics, history');
  await tileShows('west-2');
  assert.equal(await text('simple_tile_label'), 'Tideway:');
  assert.equal(await text('tower'), 'west-2');
  await waitFor(() => document.querySelector(
      '[data-ctl="stat_outlinelistbox"] tr[data-row="id_active_filtered"] td:nth-child(2)')
      .textContent !== '0');
  assert.equal(await page.locator('[data-ctl="overview_stat_outlinelistbox"] tr[data-row="id_cur_tower"] td')
      .nth(1).textContent(), 'west-2');
  assert.match(await page.locator('#history li').first().textContent(), /\d\d:\d\d:\d\d.*Connected \(west-2\)/);
  assert.equal(await page.locator('#tray').getAttribute('title'), 'Tray: Good \u2013 Connected');
  await page.locator('#agent-log li.connect').first().waitFor();

  step('tower combobox: 1042 with the name, then the page follows the agent');
  const combo = ctl('tower_list_combobox');
  await page.waitForFunction(() => !document.querySelector('[data-ctl="tower_list_combobox"]').disabled);
  assert.deepEqual(await combo.locator('option').allTextContents(), ['west-1', 'west-2', 'east-1']);
  await combo.selectOption({label: 'east-1'});
  await agentReceived(/^RECV session=\d+ COMM_MSG_CHANGE_ACTIVE_TOWER len=6 tower="east-1"$/);
  await tileShows('east-1');
  assert.equal(await text('tower'), 'east-1');
  assert.equal(await combo.evaluate((s) => s.options[s.selectedIndex].text), 'east-1');
  assert.match(await page.locator('#last-event').textContent(),
      /^<brguiEvent id="tower_list_combobox_OnSelect"><combobox id="tower_list_combobox" value="east-1"\/><\/brguiEvent>$/);

  step('mode radios: 1046 automatic, then manual again');
  await page.getByLabel('Automatic', {exact: true}).check();
  await agentReceived(/^RECV session=\d+ COMM_MSG_DCT_SETTINGS_UPDATE len=12 mode=1 detect=0$/);
  await waitFor(() => document.querySelector('[data-ctl="tower_list_combobox"]').disabled);
  await ctl('tower_update_pending').waitFor({state: 'visible'});
  await page.getByLabel('Manual', {exact: true}).check();
  await agentReceived(/^RECV session=\d+ COMM_MSG_DCT_SETTINGS_UPDATE len=12 mode=0 detect=0$/);
  await waitFor(() => !document.querySelector('[data-ctl="tower_list_combobox"]').disabled);
  await ctl('tower_update_pending').waitFor({state: 'hidden'});
  // The page as a person sees it after these clicks (the README's picture comes from here).
  await page.screenshot({path: `${artefacts}/web-host.png`});

  step('proxy request from the panel: the dialog, Enter in the password field, the 1050 record');
  const dialog = page.locator('dialog[data-popup="credential_dialog"]');
  await page.fill('input[name="host"]', '10.1.2.3');
  await page.fill('input[name="realm"]', 'office');
  await page.locator('form[data-template^="proxy"] button').click();
  await dialog.waitFor();
  assert.equal(await dialog.locator('h2').textContent(), 'Tarvex Brenlo Tideway');
  assert.equal(await dialog.locator('[data-ctl="proxyhostdata_lbl"]').textContent(), 'Proxy Server:  10.1.2.3:3128');
  assert.equal(await dialog.locator('[data-ctl="proxyrealm_lbl"]').textContent(), 'Proxy Realm:  office');
  for (const id of ['proxyuser', 'proxypswd']) {
    assert.equal(await dialog.locator(`[data-ctl="${id}"]`).getAttribute('maxlength'), '32');
  }
  assert.ok(await dialog.locator('[data-ctl="proxyuser"]').evaluate((e) => e === document.activeElement));
  await dialog.locator('[data-ctl="proxyuser"]').fill('alice');
  await dialog.locator('[data-ctl="proxypswd"]').fill('s3cret pw');
  await dialog.locator('[data-ctl="proxypswd"]').press('Enter');
  await agentReceived(/^RECV session=\d+ COMM_MSG_PROXY_CRED_RESPONSE len=400 user="alice" password="s3cret pw" reserved=zero$/);
  await dialog.waitFor({state: 'detached'});

  step('second request: OK with no password keeps the dialog; Cancel sends 1052; x sends it too');
  await page.locator('form[data-template^="proxy"] button').click();
  await dialog.waitFor();
  await dialog.locator('[data-ctl="proxyuser"]').fill('bob');
  await dialog.locator('[data-ctl="credential_ok_btn"]').click();
  await dialog.locator('[data-ctl="credential_cancel_btn"]').click();
  const cancel = /^RECV session=\d+ COMM_MSG_PROXY_CANCEL_REQUEST len=0$/;
  await agentReceived(cancel);
  await dialog.waitFor({state: 'detached'});
  // Events are handled in order, so a record for "bob" would have come before the cancel.
  assert.equal(agentLines(/COMM_MSG_PROXY_CRED_RESPONSE/).length, 1);
  await page.locator('form[data-template^="proxy"] button').click();
  await dialog.locator('[data-ctl="credential_close"]').click();
  await agentReceived(cancel, 2);
  await dialog.waitFor({state: 'detached'});

  step('markup from the agent shows as text and runs nothing');
  const hostile = "<img/src='x'/onerror=window.pwned=1>";
  const info = '<script>window.pwned=2</script><b onmouseover=window.pwned=3>bold</b>';
  await control(`towers west-1,west-2,east-1,${hostile} east-1`);
  await control(`activate ${hostile}`);
  await waitFor((t) => document.querySelector('[data-ctl="tower"]').textContent === t, hostile);
  await control(`info 3 ${info}`);
  await waitFor((t) => document.querySelector('#history li .line').textContent === t, info);
  await control('proxy <i>h</i> 8080 Basic <img src=x onerror=window.pwned=4>');
  await dialog.waitFor();
  assert.equal(await dialog.locator('[data-ctl="proxyrealm_lbl"]').textContent(),
      'Proxy Realm:  <img src=x onerror=window.pwned=4>');
  await dialog.locator('[data-ctl="credential_cancel_btn"]').click();
  await dialog.waitFor({state: 'detached'});
  await tileShows(hostile);
  assert.ok((await combo.locator('option').allTextContents()).includes(hostile));
  assert.equal(await page.evaluate(() => window.pwned), undefined);
  assert.equal(await page.locator('img, script:not([src]), b, i').count(), 0);

  step('each failed tower change (1043 with 0) brings its own error pop-up; each OK closes one');
  const errors = page.locator('dialog[data-popup="error_popup"]');
  await control('send 1043 00');
  await errors.waitFor();
  await page.evaluate(() => {  // the pop-up is modal: the panel is only reachable by script
    const form = document.querySelector('form[data-template="{line}"]');
    form.querySelector('input[name="line"]').value = 'send 1043 00';
    form.requestSubmit();
  });
  await waitFor(() => document.querySelectorAll('dialog[data-popup="error_popup"]').length === 2);
  for (const left of [1, 0]) {
    const error = errors.last();  // the one on top
    assert.equal(await error.locator('h2').textContent(), 'Error');
    assert.equal(await error.locator('.popup-text').textContent(), 'The tower could not be changed.');
    await error.getByRole('button', {name: 'OK'}).click();
    await waitFor((n) => document.querySelectorAll('dialog[data-popup="error_popup"]').length === n, left);
  }

  step('the agent drops the client: Error, then Good again after the reconnect');
  await control('towers west-1,west-2,east-1 west-2');
  await page.evaluate(() => { window.trayStates.length = 0; });
  await page.locator('button[data-line="drop"]').click();
  await page.locator('#agent-log li.command', {hasText: '\u2192 drop'}).waitFor();
  await page.locator('#agent-log li.reply', {hasText: '\u2190 OK dropped=1'}).waitFor();
  await waitFor(() => window.trayStates.join(' ').match(/Error.* Good/));
  await tileShows('west-2');
  await agentReceived(/^CONNECT session=2 /);

  step('a second page gets the same state replayed');
  const late = await browser.newPage();
  await late.goto(url);
  await late.waitForFunction(() => document.getElementById('tray').dataset.state === 'Good' &&
      document.querySelector('[data-ctl="tower"]')?.textContent === 'west-2', null, {timeout: TIMEOUT});
  assert.equal(await late.locator('#history li .line').first().textContent(),
      await page.locator('#history li .line').first().textContent());
  await late.close();

  assert.deepEqual(problems, []);
  step(`passed; screenshot ${artefacts}/web-host.png`);
} catch (e) {
  const open = browser.contexts().flatMap((c) => c.pages());
  if (open.length > 0) await open[0].screenshot({path: `${artefacts}/web-host-failure.png`}).catch(() => {});
  console.error(problems.join('\n'));
  throw e;
} finally {
  await browser.close();
}
