// Looks at a written report as a reader's browser does:
//     node --test report.test.mjs     with TARN_REPORT_FOLDER in the environment
// The folder holds two of them: demo, of year.sql, and hostile, of hostile.sql on top of it.
import assert from 'node:assert/strict';
import { readFileSync, readdirSync } from 'node:fs';
import { createRequire } from 'node:module';
import { join } from 'node:path';
import { after, before, describe, test } from 'node:test';
import { pathToFileURL } from 'node:url';
import { launch, schemes, widths } from './browser.mjs';

const folder = process.env.TARN_REPORT_FOLDER;
const axe = readFileSync(createRequire(import.meta.url).resolve('axe-core/axe.min.js'), 'utf8');
const pages = {
    host: 'demo/index.html',
    site: 'demo/site-www.example.org.html',
    empty: 'demo/site-kunde-33.example.html',
    'hostile host': 'hostile/index.html',
    'hostile site': 'hostile/' + readdirSync(join(folder, 'hostile')).find((name) => name.includes('_5fx.example')),
};
const everyPage = ['demo', 'hostile'].flatMap((part) => readdirSync(join(folder, part)).map((name) => join(part, name)));
let browser;

before(async () => { browser = await launch(); });
after(async () => { await browser.close(); });

/** Opens a page and collects what it must not do. */
async function open(name, { width = 1440, scheme = 'light' } = {}) {
    const tab = await browser.newPage({ viewport: { width, height: 900 }, colorScheme: scheme });
    const trouble = [];
    const url = pathToFileURL(join(folder, name)).href;
    tab.on('request', (request) => {
        if (request.url() !== url && request.url() !== 'data:,') trouble.push(`asked for ${request.url()}`);
    });
    tab.on('dialog', (dialog) => { trouble.push(`dialog ${dialog.message()}`); dialog.dismiss(); });
    tab.on('console', (message) => trouble.push(`console: ${message.text()}`));
    tab.on('pageerror', (error) => trouble.push(`error: ${error}`));
    tab.on('framenavigated', (frame) => { if (frame.url() !== url) trouble.push(`went to ${frame.url()}`); });
    await tab.goto(url, { waitUntil: 'load' });
    return { tab, trouble };
}

for (const [what, name] of Object.entries(pages)) {
    for (const width of widths) {
        for (const scheme of schemes) {
            // Colours do not depend on the width, nor the layout on the colours: for the odd pages two views will do.
            if (!['host', 'site'].includes(what) && (width === widths[0]) !== (scheme === schemes[0])) continue;
            test(`${what}, ${width} pixels, ${scheme}`, async () => {
                const { tab, trouble } = await open(name, { width, scheme });

                // Nothing stands beside the page, and no card is left by what is in it.
                const layout = await tab.evaluate(() => ({
                    wide: document.documentElement.scrollWidth - document.documentElement.clientWidth,
                    outside: [...document.querySelectorAll('.card')].flatMap((card) => {
                        const edge = card.getBoundingClientRect().right;
                        return [...card.querySelectorAll('table')]
                            .filter((table) => !table.closest('.scroll') && table.getBoundingClientRect().right > edge)
                            .map(() => card.querySelector('h3')?.textContent ?? card.textContent.slice(0, 40));
                    }),
                    // Each row has the columns of its table's head.
                    ragged: [...document.querySelectorAll('table')].filter((table) => {
                        const columns = (row) => [...row.cells].filter((cell) => cell.getClientRects().length > 0).length;
                        return [...table.rows].some((row) => columns(row) !== columns(table.rows[0]));
                    }).map((table) => table.textContent.slice(0, 40)),
                    hacked: window.hacked,
                    scripts: document.scripts.length,
                    handlers: [...document.querySelectorAll('*')].flatMap((element) => element.getAttributeNames())
                        .filter((attribute) => attribute.startsWith('on') || attribute === 'style' || attribute === 'src'),
                }));
                assert.deepEqual(layout, { wide: 0, outside: [], ragged: [], hacked: undefined, scripts: 0, handlers: [] });

                // The policy of the page lets axe in through the debugger alone.
                await tab.evaluate(axe);
                const result = await tab.evaluate(() => window.axe.run(document, {
                    runOnly: ['wcag2a', 'wcag2aa', 'wcag21a', 'wcag21aa', 'wcag22aa', 'best-practice'],
                }));
                const violations = result.violations.map((violation) =>
                    `${violation.id}: ${violation.nodes.slice(0, 3).map((node) => node.html.slice(0, 120)).join(' | ')}`);
                assert.deepEqual(violations, []);
                assert.ok(result.passes.some((pass) => pass.id === 'color-contrast'), 'contrast was not looked at');
                assert.deepEqual(trouble, []);
                await tab.close();
            });
        }
    }
}

describe('what stands on the pages', () => {
    test('host', async () => {
        const { tab } = await open(pages.host);
        assert.equal(await tab.title(), 'web1.example.org');
        assert.deepEqual(await tab.locator('h2').allTextContents(),
            ['Needs attention', 'Health, the last 30 days', 'The long run', 'Alert history', 'Accounts', 'Sites']);
        const attention = await tab.locator('.attention li').allTextContents();
        assert.ok(attention.some((text) => text.includes('Disk /srv is 93% full')), attention.join('\n'));
        assert.ok(attention.some((text) => text.startsWith('Near limitshop.example.com')), attention.join('\n'));
        assert.ok(attention.some((text) => text.startsWith('Log missing')), attention.join('\n'));
        // The load's alert is drawn in the load's chart, where the other charts have it.
        const load = tab.locator('figure', { has: tab.locator('h3', { hasText: /^Load$/ }) }).first();
        assert.equal(await load.locator('rect.s').count(), 1);
        assert.match(await load.locator('rect.s title').textContent(), /^Load 9.1 on 4 CPUs, /);
        assert.equal(await tab.locator('.sites tbody tr').count(), 44);
        assert.equal(await tab.locator('.sites tbody tr svg.k').count(), 44);
        await tab.close();
    });

    test('host on a phone', async () => {
        const { tab } = await open(pages.host, { width: widths[0] });
        // What a row is about is seen without moving its table.
        const hidden = await tab.evaluate(() => [...document.querySelectorAll('main .scroll')]
            .filter((region) => region.scrollWidth > region.clientWidth).map((region) => region.ariaLabel));
        assert.deepEqual(hidden, []);
        const shown = (row) => row.locator('td:visible, th:visible').allTextContents();
        const account = tab.locator('tr', { has: tab.locator('th', { hasText: 'shop.example.com' }) }).first();
        assert.match((await shown(account))[1], /^9.4.GiB of 10.0.GiB.*\+[\d.]+.MiB$/);
        await tab.close();
    });

    test('site', async () => {
        const { tab } = await open(pages.host);
        await tab.getByRole('link', { name: 'www.example.org', exact: true }).click();
        assert.equal(await tab.locator('h1').textContent(), 'www.example.org');
        const cards = await tab.locator('h3').allTextContents();
        for (const card of ['Visitors', 'Page views', 'Sessions', 'Bounces', 'Attention per view', 'Top pages', 'Entry pages',
            'Kinds of source', 'Sources', 'Campaigns', 'Search terms', 'Countries', 'Devices', 'Browsers', 'Systems',
            'AI crawlers', 'Other bots', 'Statuses', 'Broken links']) assert.ok(cards.includes(card), card);
        const table = (name) => tab.locator('section.card', { has: tab.locator('h3', { hasText: name }) });
        assert.match(await table('AI crawlers').textContent(), /GPTBot/);
        assert.match(await table('Other bots').textContent(), /Googlebot/);
        assert.doesNotMatch(await table('Other bots').textContent(), /GPTBot/);
        assert.match(await table('Search terms').textContent(), /walking boots/);
        assert.match(await table('Countries').textContent(), /Germany/);
        assert.match(await table('Devices').textContent(), /Mobile/);
        assert.match(await table(/^Sources$/).textContent(), /ChatGPT AI assistant/);
        assert.equal(await tab.locator('.heat tbody td').count(), 7 * 24);
        assert.match(await tab.locator('.card', { has: tab.locator('.heat') }).textContent(),
            /The strongest colour is (Mon|Tue|Wed|Thu|Fri|Sat|Sun) \d\d:00 with [\d\u202f]+\.$/);
        assert.match(await tab.locator('.tiles').textContent(), /Live at \d\d:\d\d\d+visitors in the 5 minutes before/);
        assert.match(await tab.locator('.tiles').textContent(), /Bounces[\d.]+\u202f%[+\u2212±][\d.]+ points, was/);
        await tab.getByText('The same by the day as a table').click();
        assert.equal(await tab.locator('details tbody tr').count(), 30);
        await tab.getByRole('link', { name: 'All sites and the host' }).click();
        assert.equal(await tab.locator('h1').textContent(), 'web1.example.org');
        await tab.close();
    });

    test('a site without visits', async () => {
        const { tab } = await open(pages.empty);
        assert.match(await tab.locator('header').textContent(), /No visits in this period\./);
        assert.equal(await tab.locator('svg').count(), 0);
        await tab.close();
    });
});

describe('what strangers send', () => {
    test('is shown as text', async () => {
        const { tab } = await open(pages['hostile site']);
        const shown = await tab.locator('bdi').allTextContents();
        assert.ok(shown.includes('/<script>window.hacked = 1</script>'));
        assert.ok(shown.includes('javascript:window.hacked=4'));
        assert.equal(await tab.locator('h1').count(), 1);
        assert.equal(await tab.locator('style').count(), 1);
        assert.equal(await tab.locator('main a[href]').count(), 0);
        assert.equal(await tab.locator('img, iframe, base, object, form, input').count(), 0);
        await tab.close();
    });

    test('does not push the rest away', async () => {
        const { tab } = await open(pages['hostile host']);
        const kinds = await tab.locator('.attention b').allTextContents();
        assert.ok(kinds.includes('/<script>window.hacked =…'), kinds.join('\n'));
        assert.ok(kinds.every((kind) => kind.length <= 25), kinds.join('\n'));
        await tab.close();
    });

    test('runs nothing when it is pointed at and clicked', async () => {
        for (const name of [pages['hostile site'], pages['hostile host']]) {
            const { tab, trouble } = await open(name);
            const touched = await tab.evaluate(() => {
                const elements = [...document.querySelectorAll('main *:not(a, a *)')];
                for (const element of elements) {
                    for (const event of ['mouseover', 'mousedown', 'click', 'focus', 'error', 'load', 'toggle'])
                        element.dispatchEvent(new MouseEvent(event, { bubbles: true, cancelable: true }));
                }
                return elements.length;
            });
            assert.ok(touched > 500);
            assert.equal(await tab.evaluate(() => window.hacked), undefined);
            assert.deepEqual(trouble, []);
            await tab.close();
        }
    });

    test('could not run even if it were markup', async () => {
        const { tab } = await open(pages.site);
        await tab.setContent((await tab.content()).replace('</main>',
            '<script>window.hacked = 1</script><img src="x" onerror="window.hacked = 2"><p style="color:red">x</p></main>'));
        assert.equal(await tab.evaluate(() => window.hacked), undefined);
        await tab.close();
    });

    test('turns no text around it and hides nothing', () => {
        for (const name of everyPage) {
            const page = readFileSync(join(folder, name), 'utf8');
            assert.doesNotMatch(page, /[\u202a-\u202e\u2066-\u2069\u200b\u200e\u200f\u061c\ufeff]/u, name);
            assert.doesNotMatch(page, /[\u0000-\u0008\u000b-\u001f\u007f-\u009f]/u, name);
        }
    });
});

test('no address, no visitor id, no secret', () => {
    for (const name of everyPage) {
        const page = readFileSync(join(folder, name), 'utf8');
        assert.doesNotMatch(page, /192\.0\.2\.77|demo-refresh-token|admin@example\.org/, name);
        // Ids are eight bytes; 16 hexadecimal digits in a row are none of ours.
        assert.doesNotMatch(page.replace(/sha256-[^']*/g, ''), /\b[0-9a-f]{16}\b/, name);
    }
});
