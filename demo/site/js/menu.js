document.addEventListener('DOMContentLoaded', () => {
    for (const link of document.querySelectorAll('main a')) {
        link.classList.toggle('here', link.href === location.href);
    }
});
