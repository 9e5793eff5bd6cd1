// Pictures of pages as readers see them, to be looked at while working on them:
//     node shots.mjs FOLDER PAGE.html...
// writes FOLDER/PAGE-390-light.png and so on.
import { basename, join, resolve } from 'node:path';
import { pathToFileURL } from 'node:url';
import { launch, schemes, widths } from './browser.mjs';

const [folder, ...pages] = process.argv.slice(2);
const browser = await launch();
for (const page of pages) {
    for (const width of widths) {
        for (const scheme of schemes) {
            const tab = await browser.newPage({ viewport: { width, height: 900 }, colorScheme: scheme });
            await tab.goto(pathToFileURL(resolve(page)).href);
            const name = `${basename(page, '.html')}-${width}-${scheme}.png`;
            await tab.screenshot({ path: join(folder, name), fullPage: true });
            await tab.close();
        }
    }
}
await browser.close();
